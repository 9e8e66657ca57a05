#include "network/WakeUpDescriptors.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kelvo {
namespace {

bool isLocalSocket(int descriptor) {
  int domain = 0;
  socklen_t size = sizeof domain;
  return ::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_UNIX;
}

}  // namespace

/// A pipe takes the two lowest free numbers and gives them back.
WakeUpDescriptors::WakeUpDescriptors() {
  if (::pipe2(guess_.data(), O_CLOEXEC) != 0) return;
  for (const int end : guess_) ::close(end);
}

bool WakeUpDescriptors::isConfirmed() const {
  const auto [reading, writing] = guess_;
  if (!isLocalSocket(reading) || !isLocalSocket(writing)) return false;
  int received = 0;  // bytes
  int unread = 0;    // kernel memory of the sent bytes that the other end has not read
  if (::ioctl(reading, FIONREAD, &received) != 0 || ::ioctl(writing, SIOCOUTQ, &unread) != 0) return false;
  return received == 1 && unread != 0;
}

void WakeUpDescriptors::closeOnExec() const {
  if (!isConfirmed()) return;
  for (const int descriptor : guess_) ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}

}  // namespace kelvo
