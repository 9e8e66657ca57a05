#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kelvo {

class Bundle;

/// The two directories of the home of this process. The first use creates them with mode 0700. Thread-safe.
///
/// The home is `$KELVO_HOME`, else the path of `chooseHome`, else
/// `${XDG_DATA_HOME:-$HOME/.local/share}/kelvo/<storageName>`. Former versions had no `kelvo/`
/// in this path: a home that they made stays in use. Without `HOME`, the password entry's home directory replaces it.
/// The library resolves the home once; a linked home directory stays usable. Below it there must be no link. The
/// effective user must own the home (root may, too) and everything in the two directories, and nobody else may write
/// there or replace the home (see Trust.h). Else there is no home, and one ERROR line names the path.
///
/// If there is no home, the paths name directories that cannot exist: every write fails as on a full disk.
class Directories {
 public:
  /// Sets the home of this process, unless the environment names one. An empty path changes nothing. Returns false if
  /// the process uses another home already.
  static bool chooseHome(const std::string& path);
  /// Names this process in place of its executable, unless the bundle has an identifier. An empty name changes nothing.
  /// Has no effect once the home is in use.
  static void nameProgram(const std::string& name);
  /// Returns the name of this process's default home and preferences: the bundle's identifier, the name of
  /// `nameProgram`, or the executable's name.
  static std::string storageName();

  /// The paths are absolute and have no trailing slash.
  static const std::string& library();
  static const std::string& documents();

  /// Returns the Library directory of this process's home, nullopt if it does not exist. Creates and judges nothing:
  /// only `library` says whether the home may be used. From now on, `chooseHome` cannot change the home.
  static std::optional<std::string> existingLibrary();

  /// Returns the full path of a file in the Library directory.
  static std::string inLibrary(std::string_view relativePath);

  /// Returns in one sentence why this process has no home, nullopt if it has one. The same text is in the log.
  static std::optional<std::string> problem();
  /// Returns `${XDG_DATA_HOME:-$HOME/.local/share}`, the parent of homes, nullopt if there is none.
  static std::optional<std::string> sharedData();

  /// Returns the home of a program with this bundle, nullopt if it has none. Creates nothing.
  static std::optional<std::string> homeFor(const Bundle& bundle);
};

}  // namespace kelvo
