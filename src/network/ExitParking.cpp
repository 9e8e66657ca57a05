#include "network/ExitParking.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "network/Curl.h"
#include "platform/Immortal.h"
#include "platform/Thread.h"

namespace kelvo {
namespace {

constexpr std::chrono::milliseconds kParkingLimit{500};

thread_local bool onNetworkThread = false;

}  // namespace

ExitParking& ExitParking::shared() {
  static Immortal<ExitParking> instance;
  return *instance;
}

/// Uses OpenSSL's own list of exit handlers. Registered before OpenSSL initialises, so that it runs before OpenSSL's
/// own exit handler, even if the process exits in the middle of the initialisation.
void ExitParking::registerBeforeOpenSSL() {
  using Register = int (*)(void (*)());
  const auto registerHandler = reinterpret_cast<Register>(Curl::functionBehind("OPENSSL_atexit"));
  if (registerHandler != nullptr) registerHandler(ExitParking::parkAtExit);
}

/// Exit handlers run in reverse order, so this one runs before those that curl's initialisation registered: those of a
/// TLS library other than OpenSSL, too.
bool ExitParking::registerAfterCurl() {
  return std::atexit(ExitParking::parkAtExit) == 0;
}

void ExitParking::parkAtExit() {
  if (!inForkedChild()) shared().parkAll();
}

void ExitParking::enter(NetworkThread& thread) {
  onNetworkThread = true;
  const Lock lock(mutex_);
  inside_.push_back(&thread);
}

void ExitParking::leave(NetworkThread& thread) {
  const Lock lock(mutex_);
  // Erases one entry only: the session's next thread may have entered already.
  inside_.erase(std::find(inside_.begin(), inside_.end(), &thread));
  left_.notify_all();
}

void ExitParking::parkIfExiting(NetworkThread& thread) {
  if (!isExiting()) return;
  leave(thread);
  for (;;) ::pause();
}

void ExitParking::parkAll() {
  isExiting_.store(true);
  Lock lock(mutex_);
  for (NetworkThread* thread : inside_) thread->wake();
  if (onNetworkThread) return;  // exit was called on a network thread, which cannot wait for itself
  const auto deadline = std::chrono::steady_clock::now() + kParkingLimit;
  while (!inside_.empty() && lock.waitUntil(left_, deadline)) {
  }
}

}  // namespace kelvo
