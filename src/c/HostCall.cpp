#include "c/HostCall.h"

#include <pthread.h>

#include <atomic>

#include "kelvo/kelvo.h"

namespace kelvo::c {
namespace {

std::atomic<int> running{0};
std::atomic<bool> stopped{false};
thread_local int ownCalls = 0;
// The other threads do not exist in a forked child.
[[maybe_unused]] const int forkHandler = pthread_atfork(nullptr, nullptr, [] { running.store(ownCalls); });

bool begin() noexcept {
  running.fetch_add(1);  // before `stopped` is read, so that `stop` sees the call or the call sees `stop`
  ++ownCalls;
  return !stopped.load();
}

}  // namespace

HostCall::HostCall() noexcept : mayBegin_(begin()) {}

HostCall::~HostCall() {
  --ownCalls;
  running.fetch_sub(1);
  if (stopped.load()) running.notify_all();
}

void HostCall::stop() noexcept {
  stopped.store(true);
  for (int now = running.load(); now > ownCalls; now = running.load()) running.wait(now);
}

void HostCall::allow() noexcept {
  stopped.store(false);
}

}  // namespace kelvo::c

void kelvo_stop_callbacks(void) {
  kelvo::c::HostCall::stop();
}
