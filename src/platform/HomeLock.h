#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace kelvo {

/// The right to use this home, which one process at a time has: an advisory lock on `Library/com.kelvo.lock`, held
/// until the process ends.
class HomeLock {
 public:
  /// Takes the lock; the id of the process that holds it when that is another one. A home in which no lock file can be
  /// made is nobody's, and counts as taken by this process.
  [[nodiscard]] static std::optional<pid_t> takeOrFindHolder();

  /// The process that uses the home with this Library directory now; nothing is taken or made.
  [[nodiscard]] static std::optional<pid_t> holderOf(const std::string& library);
};

}  // namespace kelvo
