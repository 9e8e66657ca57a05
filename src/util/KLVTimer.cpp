#include "util/KLVTimer.h"

#include <algorithm>
#include <chrono>

#include "platform/Clock.h"
#include "platform/MainQueue.h"
#include "platform/ProcessWide.h"

namespace kelvo {
namespace {
constexpr double kLongestInterval = 1e9;  // seconds: about 31 years, which still fits into 64-bit nanoseconds
}

KLVTimer& KLVTimer::sharedTimer() {
  static ProcessWide<KLVTimer> instance;
  return *instance;
}

std::int64_t KLVTimer::currentTime() const {
  return timeAt(Clock::now());
}

std::int64_t KLVTimer::timeAt(Date when) const {
  return std::chrono::duration_cast<std::chrono::seconds>(when - SDKStartTime()).count();
}

std::int64_t KLVTimer::currentTimeInMillis() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count();
}

void KLVTimer::registerForTimerNotificationWithInterval(double interval, std::function<void()> closure) {
  if (!(interval > 0) || !closure) return;
  const std::chrono::duration<double> seconds(std::min(interval, kLongestInterval));
  // A period of zero would keep the main loop busy forever.
  const auto period =
      std::max(std::chrono::duration_cast<std::chrono::nanoseconds>(seconds), std::chrono::nanoseconds(1));
  MainQueue::repeatEvery(period, std::move(closure));
}

}  // namespace kelvo
