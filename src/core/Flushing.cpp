#include "core/Flushing.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <utility>

#include "core/KLVController.h"
#include "network/ExitParking.h"
#include "platform/Clock.h"
#include "platform/DispatchQueue.h"
#include "platform/MainQueue.h"
#include "platform/Privileges.h"
#include "platform/SwitchedOff.h"
#include "platform/Thread.h"
#include "util/KLVUtilities+Counts.h"

namespace kelvo {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLongestDeadline = std::chrono::hours(24 * 365);
/// `wait` waits this much longer for a result that is being counted.
constexpr milliseconds kLongestCount(1000);
constexpr milliseconds kBetweenChecks(50);

/// Why a flush ends.
enum class End { settled, notCut, tooLate };

KLVController& controller() {
  return KLVController::sharedController();
}

/// Returns the result if not everything is delivered, without what waits. `failuresBefore` is the number of failures
/// before the flush: an earlier one is the cause only if nothing is under way.
FlushResult undelivered(const KLVDeliveryState& state, std::uint64_t failuresBefore) {
  FlushResult result;
  result.deliveredEvents = state.deliveredEvents;
  result.deliveredChunks = state.deliveredChunks;
  if (auto reason = controller().reasonNotToCollect()) {
    result.reason = *std::move(reason);
  } else if (state.latestFailure && (state.failures > failuresBefore || state.underWay == 0)) {
    result.outcome = state.latestFailure->outcome;
    result.status = state.latestFailure->status;
    result.reason = state.latestFailure->reason;
  } else {
    result.outcome = FlushOutcome::deadline;
    result.reason = controller().hasStarted() ? "the deadline passed before the service answered"
                                              : "the deadline passed before the start-up had ended";
  }
  return result;
}

/// Returns the result. Blocks while it counts what waits.
FlushResult resultOf(End end, std::uint64_t failuresBefore) {
  const auto state = controller().deliveryState();
  FlushResult result = undelivered(state, failuresBefore);
  const auto waiting = controller().waiting();
  if (waiting) {
    result.waitingEvents = waiting->events;
    result.waitingChunks = waiting->chunks;
  }
  if (result.outcome == FlushOutcome::notCollecting || end == End::tooLate) return result;
  if (end == End::notCut || !waiting) {
    result.outcome = FlushOutcome::deadline;
    result.status = 0;
    result.reason = "the database cannot be read or written";
  } else if (waiting->chunks == 0 && waiting->events == waiting->newEvents) {  // new events followed the cut
    result.outcome = FlushOutcome::delivered;
    result.status = 0;
    result.reason.clear();
  } else if (result.outcome == FlushOutcome::deadline && state.underWay == 0 && !state.latestFailure) {
    result.reason = KLVUtilities::numberOf(waiting->events, "event") + " must wait for a later launch";
  }
  return result;
}

/// Marks the main loop as blocked, if the calling thread runs it.
class BlockedMainLoop {
 public:
  BlockedMainLoop() : isBlocked_(MainQueue::isCurrent()) {
    if (isBlocked_) controller().setMainLoopBlocked(true);
  }
  BlockedMainLoop(const BlockedMainLoop&) = delete;
  BlockedMainLoop& operator=(const BlockedMainLoop&) = delete;
  ~BlockedMainLoop() {
    if (isBlocked_) controller().setMainLoopBlocked(false);
  }

 private:
  const bool isBlocked_;
};

}  // namespace

void Flushing::begin(milliseconds deadline, std::function<void(const FlushResult&)> callback) {
  const bool waits = deadline.count() > 0;
  const bool never = isRefusedForItsRights() || SwitchedOff::reason() || controller().waitsForConsent();
  if (never || (!waits && !controller().isSDKInitCalled())) {
    return callback(undelivered(controller().deliveryState(), 0));
  }
  if (!controller().isSDKInitCalled()) {  // there is no thread yet that could count the time
    return controller().whenPastStart(
        [latest = Clock::monotonic() + std::min(deadline, kLongestDeadline), callback = std::move(callback)] {
          begin(std::chrono::duration_cast<milliseconds>(latest - Clock::monotonic()), callback);
        });
  }
  const auto finish = [isOver = std::make_shared<std::atomic<bool>>(false), callback = std::move(callback),
                       failuresBefore = controller().deliveryState().failures](End end) {
    if (!isOver->exchange(true)) callback(resultOf(end, failuresBefore));
  };
  if (waits) {
    DispatchQueue::global().after(std::min(deadline, kLongestDeadline), [finish] { finish(End::tooLate); });
  }
  const auto deliver = [waits, finish] {
    if (controller().reasonNotToCollect()) return finish(End::tooLate);
    controller().deliverNow(waits, [finish](bool isCut) { finish(isCut ? End::settled : End::notCut); });
  };
  // Not on the caller's thread, because counting reads the database.
  DispatchQueue::global().async([waits, finish, deliver] {
    if (!waits && !controller().hasStarted()) finish(End::tooLate);  // the cut follows the start-up
    // Behind a decision about consent that is on its way to the controller's queue: it may begin a start-up.
    controller().performInOrder(
        [deliver] { DispatchQueue::global().async([deliver] { controller().whenStarted(deliver); }); });
  });
}

FlushResult Flushing::wait(milliseconds deadline) {
  if (onLibraryThread() || DispatchQueue::isInsideTask() || MainQueue::isInsideTask()) {
    FlushResult result;
    result.outcome = FlushOutcome::insideCallback;
    result.reason = "a callback of the library must not wait for the library";
    return result;
  }
  const std::uint64_t failuresBefore = controller().deliveryState().failures;
  const auto limit = std::clamp(deadline, milliseconds(0), kLongestDeadline) +
                     (controller().isSDKInitCalled() ? kLongestCount : milliseconds(0));
  const auto latest = Clock::monotonic() + limit;
  const BlockedMainLoop blocked;
  const auto result = std::make_shared<std::promise<FlushResult>>();
  auto future = result->get_future();
  if (!ExitParking::shared().isExiting()) begin(deadline, [result](const FlushResult& now) { result->set_value(now); });
  while (!ExitParking::shared().isExiting() && Clock::monotonic() < latest) {
    if (Clock::waitFor(future, kBetweenChecks)) return future.get();
  }
  return undelivered(controller().deliveryState(), failuresBefore);
}

}  // namespace kelvo
