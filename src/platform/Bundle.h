#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"

namespace kelvo {

/// The host's bundle: its `Info.plist` and its resources. Immutable and therefore thread-safe.
class Bundle {
 public:
  /// The bundle of this process: the directory that `KELVO_BUNDLE` names, else `<executable>.bundle` beside the
  /// executable, else the executable's own directory.
  static Bundle& main();

  /// Reads `Info.plist` of `directory`. `executableName` is the fallback for `storageName()`.
  explicit Bundle(std::string directory, const std::string& executableName);

  /// Returns the content of `Info.plist`, which the constructor has read. Empty if the file is missing, or if it cannot
  /// be parsed (the constructor then reports a problem).
  [[nodiscard]] const Dictionary& infoDictionary() const noexcept { return info_; }
  /// Returns "CFBundleIdentifier" if that is usable as a file name, else the executable's name.
  [[nodiscard]] const std::string& storageName() const noexcept { return storageName_; }
  /// Returns the path of `<name>.<type>` in the bundle's directory or in its `Resources/`, nullopt if neither has it.
  /// An empty `type` means a file without an extension.
  [[nodiscard]] std::optional<std::string> pathForResource(std::string_view name, std::string_view type) const;

 private:
  std::string directory_;
  Dictionary info_;
  std::string storageName_;
};

}  // namespace kelvo
