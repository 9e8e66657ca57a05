#include "kelvo-log/Waiting.h"

#include <algorithm>
#include <functional>
#include <future>
#include <memory>

#include "core/KLVController.h"

namespace kelvo::log {
namespace {

constexpr std::chrono::seconds kLongestStorage(35);

/// Calls `request(done)` and blocks until `done` is called. Returns false if `deadline` passes first.
template <class Request>
bool waitForCallback(Deadline deadline, Request request) {
  const auto done = std::make_shared<std::promise<void>>();
  request([done] { done->set_value(); });
  return done->get_future().wait_until(deadline) == std::future_status::ready;
}

}  // namespace

Deadline deadlineIn(std::chrono::duration<double> seconds) {
  constexpr std::chrono::duration<double> kLongest(1e9);  // about 31 years, which fit into 64 bits of nanoseconds
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::min(seconds, kLongest));
}

bool waitUntilStarted(Deadline deadline) {
  return waitForCallback(deadline, [](auto done) { KLVController::sharedController().whenStarted(std::move(done)); });
}

void waitUntilStored() {
  waitForCallback(deadlineIn(kLongestStorage),
                  [](auto done) { KLVController::sharedController().whenStored(std::move(done)); });
}

}  // namespace kelvo::log
