#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"
#include "platform/Files.h"

namespace kelvo {

/// The host's bundle: its `Info.plist` and its resources. Immutable and therefore thread-safe.
///
/// An object of the bundle is used only if nobody but root and the effective user can change it: they own it and every
/// directory from the executable's own (or from that of `KELVO_BUNDLE`) down to it, and nobody else may write to them
/// (see Trust.h). Any other object counts as missing, and one ERROR line names it.
class Bundle {
 public:
  /// An object that was judged after it was opened, so that nobody can replace it between the two.
  struct Resource {
    std::string path;  ///< without a link below the executable's directory
    Descriptor file;

    /// Returns a name of this very object for `dlopen`, valid while `file` is open: `path`, which debuggers know,
    /// unless another user may rename a directory above.
    [[nodiscard]] std::string loadablePath() const;
  };

  /// The bundle of this process: the directory that `KELVO_BUNDLE` names, else `<executable>.bundle` beside the
  /// executable, else the executable's own directory. Empty in a process that acts for another user.
  static Bundle& main();

  /// Reads `Info.plist` of `directory`. `executableName` is the fallback for `storageName()`. `top` is the first
  /// directory that is judged: `directory` or one above it; empty means `directory`.
  Bundle(std::string directory, const std::string& executableName, std::string top = {});

  [[nodiscard]] const std::string& directory() const noexcept { return directory_; }
  /// Returns the content of `Info.plist`, which the constructor has read. Empty if the file is missing, or if it cannot
  /// be parsed (the constructor then reports a problem).
  [[nodiscard]] const Dictionary& infoDictionary() const noexcept { return info_; }
  /// Returns "CFBundleIdentifier" if that is usable as a file name, else the executable's name.
  [[nodiscard]] const std::string& storageName() const noexcept { return storageName_; }
  /// The same with `programName` in place of the executable's name, if that is usable as a file name.
  [[nodiscard]] std::string storageName(const std::string& programName) const;
  /// Opens `<name>.<type>` in the bundle's directory or in its `Resources/`. Returns nullopt if neither has it, or if
  /// it must not be used. An empty `type` means a file without an extension.
  [[nodiscard]] std::optional<Resource> open(std::string_view name, std::string_view type) const;
  /// Returns the path of what `open` opens.
  [[nodiscard]] std::optional<std::string> pathForResource(std::string_view name, std::string_view type) const;

 private:
  std::string directory_;
  std::string top_;
  Dictionary info_;
  bool hasIdentifier_ = false;
  std::string storageName_;
};

}  // namespace kelvo
