#include "util/KLVStandardError.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace kelvo {
namespace {

KLVStandardError::Identity identityOf(int descriptor) {
  KLVStandardError::Identity identity;
  identity.isOpen = ::fstat(descriptor, &identity.facts) == 0;
  return identity;
}

}  // namespace

KLVStandardError::Identity KLVStandardError::identity() {
  return identityOf(STDERR_FILENO);
}

KLVStandardError::KLVStandardError(const Identity& atStart) {
  // We check and write a duplicate, so that no other file can take the number between the two.
  own_ = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  target_ = own_ < 0 && errno != EBADF ? STDERR_FILENO : own_;  // no descriptor is free
  if (!takesLines(atStart)) target_ = -1;
}

KLVStandardError::~KLVStandardError() {
  if (own_ >= 0) ::close(own_);
}

bool KLVStandardError::waitForRoom(std::optional<std::chrono::milliseconds> limit) const {
  if (target_ < 0) return true;
  pollfd room{target_, POLLOUT, 0};
  int ready = -1;
  do {
    ready = ::poll(&room, 1, limit ? static_cast<int>(limit->count()) : -1);
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

void KLVStandardError::write(std::string_view text, bool waits) const {
  while (target_ >= 0 && !text.empty()) {
    if (!waits && !waitForRoom(std::chrono::milliseconds(0))) return;
    const std::size_t size = waits ? text.size() : std::min<std::size_t>(text.size(), PIPE_BUF);
    const ssize_t written = ::write(target_, text.data(), size);
    if (written > 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (written < 0 && errno == EAGAIN && waits) {  // the host made it non-blocking
      static_cast<void>(waitForRoom(std::nullopt));
    } else if (written == 0 || errno != EINTR) {
      return;  // a failing log cannot be logged
    }
  }
}

bool KLVStandardError::takesLines(const Identity& atStart) const {
  const Identity now = identityOf(target_);
  if (!now.isOpen) return false;
  const bool isTheSame =
      atStart.isOpen && now.facts.st_dev == atStart.facts.st_dev && now.facts.st_ino == atStart.facts.st_ino;
  if (isTheSame || S_ISCHR(now.facts.st_mode) || S_ISFIFO(now.facts.st_mode)) return true;
  return S_ISREG(now.facts.st_mode) && (::fcntl(target_, F_GETFL) & O_APPEND) != 0;
}

}  // namespace kelvo
