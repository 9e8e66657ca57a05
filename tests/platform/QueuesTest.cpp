#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <deque>
#include <future>
#include <latch>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/Clock.h"
#include "platform/DispatchQueue.h"
#include "platform/MainQueue.h"
#include "platform/Thread.h"
#include "platform/TimerService.h"
#include "support/LogCapture.h"

namespace kelvo::test {
namespace {

using namespace std::chrono_literals;

/// Keeps tasks that `async` submitted running until what it returns is kept or dies.
template <typename Async>
std::promise<void> keepBusy(const Async& async, int tasks = 1) {
  std::promise<void> release;
  const auto entered = std::make_shared<std::latch>(tasks);
  for (const std::shared_future<void> released = release.get_future().share(); tasks > 0; --tasks) {
    async([entered, released] {
      entered->count_down();
      released.wait();
    });
  }
  entered->wait();
  return release;
}

/// Keeps both pool threads busy, in tasks of one concurrent queue.
std::promise<void> keepPoolBusy() {
  return keepBusy([](auto task) { DispatchQueue::global().async(task); }, 2);
}

std::string threadName() {
  std::array<char, 16> name{};
  pthread_getname_np(pthread_self(), name.data(), name.size());
  return name.data();
}

// --- Dispatch queues

TEST(DispatchQueue, SyncNeedsNoPoolThread) {
  const auto busy = keepPoolBusy();
  DispatchQueue queue("third");
  int before = 0, syncs = 0;
  bool early = false;
  for (int i = 0; i < 100; ++i) queue.async([&] { ++before; });
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; ++i) {
    threads.emplace_back([&] {
      DispatchQueue("own").sync([&] {
        queue.async([&] { ++syncs; });
        queue.sync([&] {
          ++syncs;
          early = early || before < 100;
        });
      });
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(syncs, 32);
  EXPECT_FALSE(early) << "a task that was submitted before had not run";
}

TEST(DispatchQueue, NestedSyncNeverWaitsForItself) {
  DispatchQueue concurrent("concurrent", DispatchQueue::Kind::concurrent);
  DispatchQueue outer("outer"), inner("inner");
  int depth = 0;
  outer.sync([&] {
    concurrent.sync([&] {
      concurrent.sync([&] {
        inner.sync([&] {
          EXPECT_TRUE(outer.isCurrent() && concurrent.isCurrent() && inner.isCurrent());
          outer.sync([&] { depth = 5; });
        });
        EXPECT_FALSE(inner.isCurrent());
      });
    });
    std::thread([&] { EXPECT_FALSE(outer.isCurrent()) << "another thread"; }).join();
  });
  EXPECT_EQ(depth, 5);
  EXPECT_FALSE(outer.isCurrent() || concurrent.isCurrent());
}

TEST(DispatchQueue, DelayedTasksComeInTheOrderOfTheirTimesOnAMovedClock) {
  DispatchQueue queue("after");
  std::string seen;
  std::latch first(1), last(2);
  const auto add = [&](std::chrono::hours delay, char letter, std::latch& done) {
    queue.after(delay, [&, letter] {
      seen += letter;
      done.count_down();
    });
  };
  add(3h, 'c', last);
  add(1h, 'a', first);
  add(3h, 'd', last);
  EXPECT_EQ(queue.sync([&] { return seen; }), "");
  Clock::advance(2h);
  first.wait();
  EXPECT_EQ(queue.sync([&] { return seen; }), "a");
  Clock::advance(2h);
  last.wait();
  EXPECT_EQ(queue.sync([&] { return seen; }), "acd");
}

TEST(DispatchQueue, WaitingTasksOutliveTheHandle) {
  std::latch done(101);
  bool ran = false;
  {
    const auto busy = keepPoolBusy();
    DispatchQueue queue("short-lived");
    for (int i = 0; i < 100; ++i) queue.async([&] { done.count_down(); });
    queue.after(0s, [&] { done.count_down(); });
  }
  done.wait();
  auto queue = std::make_unique<DispatchQueue>("dies inside");
  queue->sync([&] {
    queue.reset();
    ran = true;
  });
  EXPECT_TRUE(ran);
}

TEST(DispatchQueue, ExceptionsEndTheirTaskOnly) {
  const LogCapture log;
  DispatchQueue queue("throwing");
  EXPECT_THROW(queue.sync([] { throw std::runtime_error("to the caller"); }), std::runtime_error);
  queue.async([] { throw std::runtime_error("to the log"); });
  queue.async([] { throw 42; });
  MainQueue::async([] { throw std::runtime_error("broken"); });
  EXPECT_THROW(MainQueue::sync([] { MainQueue::sync([] { throw 42; }); }), int);
  EXPECT_EQ(queue.sync([] { return 7; }), 7);
  EXPECT_EQ(log.count("<KLV ERROR> A task on throwing threw: to the log"), 1U);
  EXPECT_EQ(log.count("<KLV ERROR> A task on throwing threw an unknown exception"), 1U);
  EXPECT_EQ(log.count("<KLV ERROR> A task threw: broken MainQueue"), 1U);
}

TEST(DispatchQueue, EightThreadsMixingSyncAndAsyncExcludeEachOtherAndLoseNothing) {
  constexpr int kThreads = 8, kTasks = 500;
  DispatchQueue queue("stress");
  std::array<int, kThreads> last{};
  int total = 0;  // plain on purpose: two tasks at a time are a data race
  bool disorder = false;
  std::atomic<int> inside{0};
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kTasks; ++i) {
        const auto task = [&, thread, i] {
          if (inside.fetch_add(1) != 0 || last[thread] != i) disorder = true;
          last[thread] = i + 1;
          ++total;
          if (i % 8 == 0) std::this_thread::yield();  // time for another to come in, if it could
          inside.fetch_sub(1);
        };
        (static_cast<std::size_t>(i) + thread) % 3 == 0 ? queue.sync(task) : queue.async(task);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  queue.sync([] {});
  EXPECT_EQ(total, kThreads * kTasks);
  EXPECT_FALSE(disorder);
}

// --- Threads

TEST(Thread, ThreadsOfTheLibraryCarryNamesAndLeaveSignalsToTheHost) {
  sigset_t before, after;
  sigemptyset(&before);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  const std::pair<std::string, std::function<void(std::function<void()>)>> cases[] = {
      {"kelvo.pool.", [](auto task) { DispatchQueue::global().async(task); }},
      {"kelvo.main", [](auto task) { MainQueue::async(task); }},
      {"a name that is ", [](auto task) { ASSERT_TRUE(startThread("a name that is too long", task)); }}};
  for (const auto& [name, start] : cases) {
    std::promise<std::string> found;
    sigset_t mask;
    start([&] {
      pthread_sigmask(SIG_SETMASK, nullptr, &mask);
      found.set_value(threadName());
    });
    EXPECT_EQ(found.get_future().get().substr(0, name.size()), name);
    for (const int number : {SIGINT, SIGTERM, SIGPIPE, SIGCHLD, SIGALRM, SIGUSR1, SIGPROF, SIGRTMIN}) {
      EXPECT_EQ(sigismember(&mask, number), 1) << name << " may run the host's handler of signal " << number;
    }
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
      EXPECT_EQ(sigismember(&mask, fault), 0) << name << " hides fault " << fault;
    }
  }
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), 0) << "the caller's own mask changed";
}

TEST(Thread, AForkedChildRunsSyncAtOnceAndDropsTheRest) {
  DispatchQueue queue("forked");
  // In the child, the queue is for ever owned by a thread that is not there.
  const auto busy = keepBusy([&](auto task) { queue.async(task); });
  const auto child = [&] {
    bool ran = false, dropped = true;
    queue.async([&] { dropped = false; });
    queue.after(0s, [&] { dropped = false; });
    MainQueue::async([&] { dropped = false; });
    queue.sync([&] { MainQueue::sync([&] { ran = true; }); });
    _exit(ran && dropped && !startThread("never", [] {}) ? 0 : 1);
  };
  EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}

// --- The main loop

/// A host's loop that turns only when the test says so, on the test's thread.
class HostLoop {
 public:
  void take() {
    MainQueue::handOver(
        [this](MainQueue::Task task) {
          const std::lock_guard lock(mutex_);
          tasks_.push_back(std::move(task));
        },
        [thread = std::this_thread::get_id()] { return std::this_thread::get_id() == thread; });
  }
  std::size_t waiting() {
    const std::lock_guard lock(mutex_);
    return tasks_.size();
  }
  /// Runs one task, waiting for it if need be.
  void turn() {
    while (waiting() == 0) std::this_thread::yield();
    std::unique_lock lock(mutex_);
    const auto task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
  }

 private:
  std::mutex mutex_;
  std::deque<MainQueue::Task> tasks_;
};

TEST(MainQueue, WaitingTasksGoOverToTheHostAndNewOnesBackToTheLibrary) {
  auto busy = keepBusy(MainQueue::async);
  std::string seen;
  for (const char letter : {'a', 'b', 'c'}) {
    MainQueue::async([&seen, letter] { seen += MainQueue::isCurrent() ? letter : '?'; });
  }
  HostLoop host;
  host.take();
  ASSERT_EQ(host.waiting(), 3U);
  MainQueue::async([&] { seen += 'd'; });
  for (int i = 0; i < 4; ++i) host.turn();
  busy.set_value();
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
  static int ticks = 0;
  MainQueue::repeatEvery(10s, [] { ++ticks; });
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
  MainQueue::handOver({}, {});
}

TEST(TimerService, AnAlarmThatThrowsSpoilsNoOtherAndNoneComesEarly) {
  const LogCapture log;
  std::latch done(1);
  TimerService::schedule(std::chrono::nanoseconds::max(), [] { FAIL() << "centuries early"; });
  TimerService::schedule(1ms, [] { throw std::runtime_error("loud"); });
  TimerService::schedule(2ms, [&] { done.count_down(); });
  done.wait();
  EXPECT_EQ(log.count("<KLV ERROR> An alarm threw: loud"), 1U);
}

}  // namespace
}  // namespace kelvo::test
