#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"

namespace kelvo {

/// A small persistent key-value store in a property list file.
///
/// Thread-safe. The first operation reads the file; after that, only `synchronize` waits for the disk. A queue writes
/// each change to the file soon afterwards. If the file cannot be read as a property list, the store
/// renames it to `<path>.corrupt`, reports a problem and starts empty.
class UserDefaults {
 public:
  /// The store of this process: `Library/Preferences/<Directories::storageName()>.plist`.
  static UserDefaults& standard();

  explicit UserDefaults(std::string path);
  ~UserDefaults();

  /// Returns the text, or the description of a number. nullopt if `key` is absent or has a value of another type.
  [[nodiscard]] std::optional<std::string> string(std::string_view key) const;
  /// Returns 0 if `key` is absent.
  [[nodiscard]] std::int64_t integer(std::string_view key) const;
  /// Returns false if `key` is absent.
  [[nodiscard]] bool boolean(std::string_view key) const;
  [[nodiscard]] bool contains(std::string_view key) const;
  /// A null value removes `key`.
  void set(std::string_view key, Value value);
  void remove(std::string_view key);

  /// Deletes all values, the file and its `.corrupt` copy, and drops unsaved changes. Blocks until that is done.
  /// Returns false if a file is left.
  bool erase();

  /// Writes unsaved changes to the file, and blocks until they are written. Returns false if the file cannot be
  /// written; the changes stay in memory, and the next write tries again.
  bool synchronize();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace kelvo
