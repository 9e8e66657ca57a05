#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kelvo {

class Bundle;

/// Where this process keeps its files; both directories are private to the user and made on first use.
///
/// `$KELVO_HOME/Library` and `$KELVO_HOME/Documents`, else below
/// `${XDG_DATA_HOME:-$HOME/.local/share}/<bundle identifier or executable name>`; the password entry's home when
/// there is no `HOME`. Without any home the paths lead nowhere and every write fails as on a full disk.
class Directories {
 public:
  /// No trailing slash.
  static const std::string& library();
  static const std::string& documents();

  /// The full path of a file that is named relative to the Library directory.
  static std::string inLibrary(std::string_view relativePath);

  /// The directory that a program with `bundle` keeps both in; nothing is made. nullopt without any home.
  static std::optional<std::string> homeFor(const Bundle& bundle);
};

}  // namespace kelvo
