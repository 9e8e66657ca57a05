#include "kelvo-log/Delivery.h"

#include <algorithm>
#include <future>
#include <map>
#include <memory>
#include <thread>

#include "core/KLVController.h"
#include "records/KLVRecordKeys.h"

namespace kelvo::log {
namespace {

constexpr std::chrono::milliseconds kPoll(5);
constexpr std::chrono::seconds kLongestStart(35);  // a request without progress is aborted earlier

KLVController& controller() {
  return KLVController::sharedController();
}

template <class Condition>
bool waitFor(Deadline deadline, Condition condition) {
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kPoll);
  }
  return true;
}

/// Calls `request(done)` and blocks until `done` is called. Returns false if `deadline` passes first.
template <class Request>
bool waitForCallback(Deadline deadline, Request request) {
  const auto done = std::make_shared<std::promise<void>>();
  request([done] { done->set_value(); });
  return done->get_future().wait_until(deadline) == std::future_status::ready;
}

/// Returns the number of chunks that the service has not accepted. A session with events after its last chunk counts as
/// one chunk more.
std::size_t chunksWaiting() {
  std::size_t waiting = 0;
  std::map<std::string, std::uint64_t> covered;  // session to the last event in a chunk
  for (const auto& meta : controller().retrieveChunkMetaInfo()) {
    const Dictionary info = meta->additionalInfo();
    if (!info[kKLVChunkStatus].asBool()) ++waiting;
    auto& end = covered[description(info[kKLVChunkSid])];
    end = std::max(end, info[kKLVChunkEnd].asUInt64());
  }
  for (const std::string& sid : controller().getSessions()) {
    if (controller().numberOfEventsWithIdentifier(sid) > covered[sid]) ++waiting;
  }
  return waiting;
}

}  // namespace

Deadline deadlineIn(std::chrono::duration<double> seconds) {
  constexpr std::chrono::duration<double> kLongest(1e9);  // about 31 years, which fit into 64 bits of nanoseconds
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::min(seconds, kLongest));
}

bool waitUntilStarted(Deadline deadline) {
  return waitFor(deadline, [] { return controller().hasStarted(); });
}

void keepPace() {
  if (controller().isSDKInitCalled()) waitUntilStarted(deadlineIn(kLongestStart));
  waitUntilStored();
}

void waitUntilStored() {
  waitForCallback(deadlineIn(kLongestStart), [](auto done) { controller().whenStored(std::move(done)); });
}

std::size_t chunksLeftBehind(Deadline deadline) {
  waitForCallback(deadline, [](auto done) { controller().whenPosted(std::move(done)); });
  waitFor(deadline, [] { return KLVPostman::sharedSession().unfinished() == 0; });
  return chunksWaiting();
}

bool storedFirstEvent() {
  return controller().getLifetimeCountForEventWithName(std::string(kKLVAppOpened)) > 0;
}

}  // namespace kelvo::log
