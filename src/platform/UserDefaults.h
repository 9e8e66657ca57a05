#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"

namespace kelvo {

/// A small persistent key-value store: `Library/Preferences/<bundle identifier or executable name>.plist`.
///
/// Every operation may come from any thread and only touches memory, `synchronize` apart. A change reaches the
/// file soon after it was made, at the latest at the next `synchronize`. A file that is no property list is set
/// aside with the ending `.corrupt`, a problem is reported, and the store begins empty.
class UserDefaults {
 public:
  static UserDefaults& standard();

  [[nodiscard]] std::optional<std::string> string(std::string_view key) const;
  /// 0 when absent.
  [[nodiscard]] std::int64_t integer(std::string_view key) const;
  [[nodiscard]] bool boolean(std::string_view key) const;
  [[nodiscard]] bool contains(std::string_view key) const;
  void set(std::string_view key, Value value);
  void remove(std::string_view key);

  /// Writes what changed and waits for it. False when the file could not be written; the change is kept in
  /// memory and tried again.
  bool synchronize();

  explicit UserDefaults(std::string path);
  ~UserDefaults();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace kelvo
