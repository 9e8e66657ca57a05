#include "events/KLVSystemEventsMonitor.h"

#include <gtest/gtest.h>

#include <future>
#include <string>

namespace kelvo::test {
namespace {

TEST(SystemEventsMonitor, DispatchesTransitionsInOrderWhileItIsStarted) {
  struct Delegate final : KLVSystemEventsMonitorDelegate {
    void updateChunkEndTime() override { calls += "end time, "; }
    void dispatchEvent(const std::shared_ptr<KLVEvent>& event) override { calls += event->identifier() + ", "; }
    std::string calls;
  } delegate;
  KLVSystemEventsMonitor monitor(delegate);
  const auto activateAndResign = [] {
    for (const auto signal : {kApplicationDidBecomeActive, kApplicationWillResignActive}) {
      NotificationCenter::defaultCenter().post(signal);
    }
  };
  activateAndResign();
  monitor.start();
  for (int i = 0; i < 2; ++i) activateAndResign();
  monitor.stop();
  activateAndResign();
  std::promise<void> done;
  monitor.whenDispatched([&] { done.set_value(); });
  done.get_future().wait();
  EXPECT_EQ(delegate.calls, "FOREGROUND, end time, BACKGROUND, FOREGROUND, end time, BACKGROUND, ");
}

}  // namespace
}  // namespace kelvo::test
