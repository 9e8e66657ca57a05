#include "platform/HomeLock.h"

#include <fcntl.h>
#include <unistd.h>

#include "platform/Directories.h"

namespace kelvo {
namespace {

/// A record lock, not flock: it names its holder, and a forked child does not inherit it.
struct flock wholeFile() {
  struct flock region {};
  region.l_type = F_WRLCK;
  region.l_whence = SEEK_SET;
  return region;
}

}  // namespace

std::optional<pid_t> HomeLock::takeOrFindHolder() {
  const int file = ::open(Directories::inLibrary("com.kelvo.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0) return std::nullopt;
  auto region = wholeFile();
  if (::fcntl(file, F_SETLK, &region) == 0) return std::nullopt;  // stays open: closing would let go of the lock
  std::optional<pid_t> holder;
  if (region = wholeFile(); ::fcntl(file, F_GETLK, &region) == 0 && region.l_type != F_UNLCK) holder = region.l_pid;
  ::close(file);
  return holder;
}

}  // namespace kelvo
