#include "platform/MainQueue.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <stdexcept>
#include <thread>

#include "QueueTestSupport.h"
#include "platform/Clock.h"
#include "platform/NotificationCenter.h"
#include "platform/TimerService.h"
#include "support/LogCapture.h"

namespace kelvo::test {
namespace {

using namespace std::chrono_literals;

/// A host's loop that turns only when the test says so, on the test's thread.
class HostLoop {
 public:
  void take() {
    MainQueue::handOver(
        [this](MainQueue::Task task) {
          const std::lock_guard lock(mutex_);
          tasks_.push_back(std::move(task));
          changed_.notify_all();
        },
        [thread = std::this_thread::get_id()] { return std::this_thread::get_id() == thread; });
  }
  std::size_t waiting() {
    const std::lock_guard lock(mutex_);
    return tasks_.size();
  }
  /// Runs one task, waiting for it if need be.
  void turn() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return !tasks_.empty(); });
    const auto task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<MainQueue::Task> tasks_;
};

TEST(MainQueue, TheOwnLoopRunsTasksInOrderAndReportsWhatTheyThrow) {
  const LogCapture log;
  std::string seen;
  MainQueue::async([&] { seen += 'a'; });
  MainQueue::async([] { throw std::runtime_error("broken"); });
  MainQueue::sync([&] {
    EXPECT_TRUE(MainQueue::isCurrent());
    MainQueue::sync([&] { seen += 'b'; });
    seen += threadName();
  });
  EXPECT_EQ(seen, "abkelvo.main");
  EXPECT_FALSE(MainQueue::isCurrent());
  EXPECT_THROW(MainQueue::sync([] { throw std::logic_error("to the caller"); }), std::logic_error);
  EXPECT_EQ(log.count("<KLV ERROR> A task threw: broken MainQueue"), 1U);
}

TEST(MainQueue, WaitingTasksGoOverToTheHostAndNewOnesBackToTheLibrary) {
  std::latch entered(1), release(1);
  MainQueue::async([&] {
    entered.count_down();
    release.wait();
  });
  entered.wait();
  std::string seen;
  for (const char letter : {'a', 'b', 'c'}) {
    MainQueue::async([&seen, letter] { seen += MainQueue::isCurrent() ? letter : '?'; });
  }
  HostLoop host;
  host.take();
  EXPECT_TRUE(MainQueue::isCurrent());
  ASSERT_EQ(host.waiting(), 3U);
  MainQueue::async([&] { seen += 'd'; });
  for (int i = 0; i < 4; ++i) host.turn();
  EXPECT_EQ(seen, "abcd");
  release.count_down();

  std::thread caller([&] { MainQueue::sync([&] { seen += 'e'; }); });
  host.turn();
  caller.join();
  EXPECT_EQ(seen, "abcde");

  MainQueue::handOver({}, {});
  MainQueue::sync([&] { seen = threadName(); });
  EXPECT_EQ(seen, "kelvo.main");
  EXPECT_FALSE(MainQueue::isCurrent());
}

TEST(MainQueue, AHostThatThrowsOrDropsTasksHoldsNobodyUp) {
  const LogCapture log;
  const auto never = [] { FAIL() << "dropped"; };
  MainQueue::handOver([](MainQueue::Task) { throw std::runtime_error("no loop"); }, [] { return false; });
  MainQueue::sync(never);
  MainQueue::handOver([](const MainQueue::Task&) {}, []() -> bool { throw 1; });
  MainQueue::sync(never);
  EXPECT_EQ(log.count("<KLV ERROR> The host's post threw: no loop"), 1U);
  EXPECT_EQ(log.count("<KLV ERROR> The host's isCurrent threw an unknown exception"), 1U);
  EXPECT_EQ(log.count("<KLV ERROR> The host's main loop dropped a task"), 2U);
  MainQueue::handOver({}, {});
}

TEST(MainQueue, ARepeatingTimerNeverPilesUpTicks) {
  HostLoop host;
  host.take();
  int ticks = 0;
  MainQueue::repeatEvery(10s, [&] { ++ticks; });
  const auto pass = [](std::chrono::seconds time) {  // until all timers due by then have fired
    std::latch passed(1);
    TimerService::schedule(time, [&] { passed.count_down(); });
    Clock::advance(time);
    passed.wait();
  };
  pass(9s);
  EXPECT_EQ(host.waiting(), 0U);
  for (const auto step : {2s, 10s, 3600s}) pass(step);
  EXPECT_EQ(host.waiting(), 1U) << "one tick waits, the others are left out";
  host.turn();
  pass(10s);
  EXPECT_EQ(host.waiting(), 1U) << "the rhythm goes on";
  host.turn();
  EXPECT_EQ(ticks, 2);

  int dropped = 0;
  MainQueue::handOver([&](const MainQueue::Task&) { ++dropped; }, [] { return false; });
  pass(3600s);
  EXPECT_EQ(dropped, 1) << "no burst of late ticks";
  host.take();
  pass(10s);
  EXPECT_EQ(host.waiting(), 1U) << "a dropped tick is not one that waits";
  host.turn();
  // The task refers to this frame: leave a loop that never runs it.
  MainQueue::handOver([](const MainQueue::Task&) {}, [] { return false; });
}

TEST(TimerService, AlarmsGoOffInOrderAndSurviveAnException) {
  const LogCapture log;
  std::string seen;
  std::latch soon(1), done(1);
  TimerService::schedule(std::chrono::nanoseconds::max(), [] { FAIL() << "centuries early"; });
  TimerService::schedule(1ms, [&] { soon.count_down(); });
  soon.wait();
  for (const auto& [delay, letter] : {std::pair{3s, 'c'}, {1s, 'a'}, {3s, 'd'}, {2s, 'b'}}) {
    TimerService::schedule(delay, [&seen, letter = letter] {
      seen += letter;
      throw std::runtime_error("loud");
    });
  }
  TimerService::schedule(4s, [&] { done.count_down(); });
  Clock::advance(4s);
  done.wait();
  EXPECT_EQ(seen, "abcd");
  EXPECT_EQ(log.count("<KLV ERROR> An alarm threw: loud"), 4U);
}

TEST(NotificationCenter, HandlersAreCalledInOrderUntilTheirSubscriptionEnds) {
  const LogCapture log;
  NotificationCenter center;
  std::string seen;
  NotificationCenter::Observation second, third;
  const auto first = center.observe("active", [&] {
    seen += 'a';
    throw std::runtime_error("loud");
  });
  second = center.observe("active", [&] {
    seen += 'b';
    third.reset();
    second = center.observe("active", [&] { seen += 'e'; });
  });
  third = center.observe("active", [&] { seen += 'c'; });
  const auto other = center.observe("resigned", [&] { seen += 'x'; });
  center.post("active");
  EXPECT_EQ(seen, "ab");
  center.post("active");
  EXPECT_EQ(seen, "abae");
  EXPECT_EQ(log.count("<KLV ERROR> A handler threw: loud"), 2U);
}

}  // namespace
}  // namespace kelvo::test
