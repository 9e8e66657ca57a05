#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace kelvo {

/// The lock's file in the Library directory. It is empty.
inline constexpr std::string_view kKLVLockFile = "com.kelvo.lock";

/// Lets one process at a time use a home, by an advisory lock on `Library/com.kelvo.lock`. The process holds the lock
/// until it ends.
class HomeLock {
 public:
  /// Takes the lock of this process's home, unless this process holds it already. Thread-safe. Returns the id of the
  /// holder if another process holds the lock, else nullopt. If no lock file can be created, no process can use the
  /// home, so the function returns nullopt.
  [[nodiscard]] static std::optional<pid_t> takeOrFindHolder();

  /// Returns the process that uses the home with this Library directory, nullopt if none does. Takes no lock and
  /// creates no file.
  [[nodiscard]] static std::optional<pid_t> holderOf(const std::string& library);
};

}  // namespace kelvo
