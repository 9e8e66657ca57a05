#include "platform/Clock.h"

#include <algorithm>

#include "platform/Context.h"
#include "platform/TimerService.h"
#include "testing/Recording.h"

// The clock of the build for tests: it stands still until a test moves it.

namespace kelvo {
namespace {

constexpr Date kBegin{std::chrono::seconds(1767268800)};  // 2026-01-01 12:00 UTC
constexpr Clock::Instant kMonotonicBegin{std::chrono::hours(1)};

std::atomic<Clock::Duration::rep> passed{0};  // since the recorder began

}  // namespace

Date Clock::now() {
  return kBegin + std::chrono::duration_cast<Date::duration>(Duration(passed.load()));
}

Clock::Instant Clock::monotonic() {
  return kMonotonicBegin + Duration(passed.load());
}

void Clock::advance(Duration step) {
  const Instant target = monotonic() + step;
  testing::waitForWork();
  for (auto next = TimerService::nextDeadline(); next && *next <= target; next = TimerService::nextDeadline()) {
    passed = (std::max(*next, monotonic()) - kMonotonicBegin).count();
    TimerService::clockMoved();
    testing::waitForWork();
  }
  passed = (target - kMonotonicBegin).count();
}

Clock::Duration Clock::inRealTime(Duration time) {
  advance(time);
  return Duration::zero();
}

void context::restartClock() noexcept {
  passed = 0;
}

}  // namespace kelvo
