#include "events/KLVSystemEventsMonitor.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/Clock.h"
#include "util/KLVTimer.h"

namespace kelvo::test {
namespace {

TEST(SystemEventsMonitor, DispatchesTransitionsWithTheirReportedTimesWhileItIsStarted) {
  struct Delegate final : KLVSystemEventsMonitorDelegate {
    void updateChunkStartTime(Date when) override { add("start", KLVTimer::sharedTimer().timeAt(when)); }
    void updateChunkEndTime(Date when) override { add("end", KLVTimer::sharedTimer().timeAt(when)); }
    void dispatchEvent(const std::shared_ptr<KLVEvent>& event) override {
      add(event->identifier(), event->createdTime());
    }
    void add(const std::string& what, std::int64_t time) { calls += what + " " + std::to_string(time) + ", "; }
    std::string calls;
  } delegate;
  const Date start = Clock::now();
  KLVTimer::sharedTimer().setSDKStartTime(start);
  KLVSystemEventsMonitor monitor(delegate);
  const auto activateAndResign = [start] {
    NotificationCenter::defaultCenter().post(kApplicationDidBecomeActive, start + std::chrono::seconds(7));
    NotificationCenter::defaultCenter().post(kApplicationWillResignActive, start + std::chrono::seconds(9));
  };
  activateAndResign();
  monitor.start();
  for (int i = 0; i < 2; ++i) activateAndResign();
  monitor.stop();
  activateAndResign();
  const std::string once = "start 7, FOREGROUND 7, end 9, BACKGROUND 9, ";
  EXPECT_EQ(delegate.calls, once + once);
}

}  // namespace
}  // namespace kelvo::test
