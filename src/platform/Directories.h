#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kelvo {

class Bundle;

/// The two directories of the home of this process. The first use creates them with mode 0700. Thread-safe.
///
/// The home is `$KELVO_HOME`, else `${XDG_DATA_HOME:-$HOME/.local/share}/<bundle identifier or executable name>`.
/// Without `HOME`, the password entry's home directory replaces it. If there is no home at all, the paths name
/// directories that cannot exist: every write fails as on a full disk.
class Directories {
 public:
  /// The paths are absolute and have no trailing slash.
  static const std::string& library();
  static const std::string& documents();

  /// Returns the full path of a file in the Library directory.
  static std::string inLibrary(std::string_view relativePath);

  /// Returns the home of a program with this bundle, nullopt if it has none. Creates nothing.
  static std::optional<std::string> homeFor(const Bundle& bundle);
};

}  // namespace kelvo
