#include "platform/Privileges.h"

#include <sys/auxv.h>
#include <unistd.h>

#include <atomic>

namespace kelvo {
namespace {
std::atomic<bool> isRefused{false};
}

bool actsForAnotherUser() noexcept {
  if (::getuid() != ::geteuid() || ::getgid() != ::getegid()) isRefused.store(true);
  return isRefusedForItsRights();
}

bool isRefusedForItsRights() noexcept {
  return isRefused.load(std::memory_order_relaxed);
}

bool mustIgnoreEnvironment() noexcept {
  return ::getauxval(AT_SECURE) != 0;
}

}  // namespace kelvo
