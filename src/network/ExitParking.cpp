#include "network/ExitParking.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "platform/ProcessWide.h"
#include "platform/Thread.h"

namespace kelvo {
namespace {

constexpr std::chrono::milliseconds kParkingLimit{500};

thread_local bool onNetworkThread = false;

}  // namespace

ExitParking& ExitParking::shared() {
  static ProcessWide<ExitParking> instance;
  return *instance;
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
