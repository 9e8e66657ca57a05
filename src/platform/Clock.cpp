#include "platform/Clock.h"

#include "platform/TimerService.h"

namespace kelvo {

std::atomic<Clock::Duration::rep> Clock::offset_{0};

Date Clock::now() {
  return std::chrono::system_clock::now() + std::chrono::duration_cast<Date::duration>(Duration(offset_.load()));
}

Clock::Instant Clock::monotonic() {
  return std::chrono::steady_clock::now() + Duration(offset_.load());
}

Clock::Duration Clock::inRealTime(Duration time) {
  return time;
}

void Clock::advance(Duration step) {
  offset_.fetch_add(step.count());
  TimerService::clockMoved();
}

}  // namespace kelvo
