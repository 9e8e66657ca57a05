#include "platform/HomeLock.h"

#include <fcntl.h>
#include <unistd.h>

#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/ProcessWide.h"
#include "platform/ThreadSafety.h"

namespace kelvo {
namespace {

constexpr mode_t kPrivateFile = 0600;

/// Returns the region of a record lock. Unlike flock, a record lock names its holder, and a forked child does not
/// inherit it.
struct flock wholeFile() {
  struct flock region {};
  region.l_type = F_WRLCK;
  region.l_whence = SEEK_SET;
  return region;
}

std::optional<pid_t> holder(int file) {
  auto region = wholeFile();
  if (::fcntl(file, F_GETLK, &region) != 0 || region.l_type == F_UNLCK) return std::nullopt;
  return region.l_pid;
}

/// The lock of this process. The file stays open: closing it would release the lock.
struct Own {
  Mutex mutex;
  std::optional<Descriptor> file GUARDED_BY(mutex);
};

}  // namespace

std::optional<pid_t> HomeLock::takeOrFindHolder() {
  static ProcessWide<Own> own;
  const Lock lock(own->mutex);
  if (own->file) return std::nullopt;
  Descriptor file(
      ::open(Directories::inLibrary(kKLVLockFile).c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kPrivateFile));
  if (file.get() < 0) return std::nullopt;
  auto region = wholeFile();
  if (::fcntl(file.get(), F_SETLK, &region) != 0) return holder(file.get());
  own->file.emplace(std::move(file));
  return std::nullopt;
}

std::optional<pid_t> HomeLock::holderOf(const std::string& library) {
  const int file = ::open(joinPath(library, kKLVLockFile).c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return std::nullopt;
  const auto found = holder(file);
  ::close(file);
  return found;
}

}  // namespace kelvo
