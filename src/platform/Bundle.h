#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"

namespace kelvo {

/// The application's resources: the directory `KELVO_BUNDLE`, else `<executable>.bundle` beside the executable,
/// else the executable's own directory. Files lie in it or in its `Resources/`.
class Bundle {
 public:
  static Bundle& main();

  /// The content of `Info.plist`, read once; empty when there is none or it cannot be parsed (a problem is
  /// reported then).
  [[nodiscard]] const Dictionary& infoDictionary() const noexcept { return info_; }
  /// "CFBundleIdentifier" when it is a usable file name, else the executable's name.
  [[nodiscard]] const std::string& storageName() const noexcept { return storageName_; }
  /// The path of `<name>.<type>`, or nullopt.
  [[nodiscard]] std::optional<std::string> pathForResource(std::string_view name, std::string_view type) const;

  explicit Bundle(std::string directory, const std::string& executableName);

 private:
  std::string directory_;
  Dictionary info_;
  std::string storageName_;
};

}  // namespace kelvo
