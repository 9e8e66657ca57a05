#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <deque>
#include <future>
#include <latch>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/Clock.h"
#include "platform/DispatchQueue.h"
#include "platform/MainQueue.h"
#include "platform/Thread.h"
#include "platform/ThreadPool.h"
#include "platform/ThreadSafety.h"
#include "platform/TimerService.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"

namespace kelvo::test {
namespace {

using namespace std::chrono_literals;

/// Submits blocking tasks through `async` and waits until all of them run. They end when the returned promise is set or
/// destroyed.
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

/// Blocks both pool threads, with tasks of one concurrent queue.
std::promise<void> keepPoolBusy() {
  return keepBusy([](auto task) { DispatchQueue::global().async(task); }, 2);
}

// --- Dispatch queues

/// No thread may wait for a pool thread or, in a nested sync, for itself.
TEST(DispatchQueue, RunsTasksOfManyThreadsOneAtATimeInOrderEvenIfThePoolIsBusy) {
  constexpr int kThreads = 8, kTasks = 500;
  for (const bool poolIsBusy : {false, true}) {
    const auto busy = poolIsBusy ? keepPoolBusy() : std::promise<void>();
    DispatchQueue queue("stress");
    std::array<int, kThreads> last{};
    int total = 0;  // not atomic: two tasks at a time are a data race
    bool disorder = false;
    std::atomic<int> inside{0};
    std::vector<std::thread> threads;
    for (std::size_t thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([&, thread] {
        for (int i = 0; i < kTasks; ++i) {
          const auto task = [&, thread, i] {
            if (inside.fetch_add(1) != 0 || last[thread] != i || !queue.isCurrent()) disorder = true;
            last[thread] = i + 1;
            ++total;
            if (i % 8 == 0) std::this_thread::yield();  // gives another task time to interfere
            inside.fetch_sub(1);
          };
          DispatchQueue own("own");
          if (i % 3 == 0) {
            own.sync([&] { queue.sync([&] { own.sync([&] { queue.sync(task); }); }); });
          } else {
            queue.async(task);
          }
          EXPECT_FALSE(queue.isCurrent() || own.isCurrent());
        }
      });
    }
    for (auto& thread : threads) thread.join();
    queue.sync([] {});
    EXPECT_EQ(total, kThreads * kTasks);
    EXPECT_FALSE(disorder);
  }
}

TEST(DispatchQueue, RunsDelayedTasksInTheOrderOfTheirDeadlines) {
  DispatchQueue queue("after");
  std::string seen;
  for (const auto& [delay, letter] : {std::pair(3h, 'c'), std::pair(1h, 'a'), std::pair(3h, 'd')}) {
    queue.after(delay, [&seen, own = letter] { seen += own; });
  }
  const auto seenAfter = [&](std::chrono::hours time, std::size_t count) {
    Clock::advance(time);
    while (queue.sync([&] { return seen.size(); }) < count) std::this_thread::yield();
    return queue.sync([&] { return seen; });
  };
  EXPECT_EQ(seenAfter(0h, 0), "");
  EXPECT_EQ(seenAfter(2h, 1), "a");
  EXPECT_EQ(seenAfter(2h, 3), "acd");
}

TEST(DispatchQueue, RunsWaitingTasksAfterItsHandleIsDestroyed) {
  std::latch done(101);
  {
    const auto busy = keepPoolBusy();
    DispatchQueue queue("short-lived");
    for (int i = 0; i < 100; ++i) queue.async([&] { done.count_down(); });
    queue.after(0s, [&] { done.count_down(); });
  }
  done.wait();
  auto queue = std::make_unique<DispatchQueue>("dies inside");
  queue->sync([&] { queue.reset(); });
}

/// The tasks that it submits run on the same thread afterwards, unless that thread has something else to do.
TEST(ThreadPool, AShortTaskWakesNoOtherThread) {
  DispatchQueue first("first"), second("second");
  std::atomic<bool> hasEnded{false}, ranInside{false};
  std::latch submitted(1), next(1), done(1);
  first.async([&] {
    submitted.wait();  // so that the next task of this queue is in the same batch
    const pool::ShortTask shortTask;
    second.async([&] {
      ranInside = !hasEnded;
      next.count_down();
    });
    std::this_thread::sleep_for(50ms);  // a woken thread would run that task now
    hasEnded = true;
  });
  first.async([&] {
    next.wait();  // for ever, if nobody wakes the other thread now
    done.count_down();
  });
  std::this_thread::sleep_for(50ms);  // the other thread falls asleep
  submitted.count_down();
  done.wait();
  EXPECT_FALSE(ranInside);
}

TEST(ThreadPool, AnErrandRunsOnAWokenThreadOnly) {
  static std::atomic<int> runs;
  runs = 0;
  const auto errand = [] { runs += onLibraryThread() ? 1 : 100; };
  {
    const auto busy = keepPoolBusy();
    EXPECT_FALSE(pool::runOnWaking(errand));
  }
  while (!pool::runOnWaking(errand)) std::this_thread::yield();
  while (runs == 0) std::this_thread::yield();
  EXPECT_EQ(runs, 1);
}

/// Returns the policy of a thread of the library that a thread with the policy `ofHost` starts; -1 without a thread.
int policyOfThread(int ofHost) {
  const auto policy = std::make_shared<std::promise<int>>();
  std::thread([policy, ofHost] {
    const sched_param parameters{};
    EXPECT_EQ(pthread_setschedparam(pthread_self(), ofHost, &parameters), 0);
    const auto report = [policy] { policy->set_value(sched_getscheduler(0)); };
    if (!startThread("kelvo.test", report, [] {})) policy->set_value(-1);
  }).join();
  return policy->get_future().get();
}

TEST(Threads, TakeNoProcessorFromTheHostAndKeepItsOwnPolicy) {
  if (prctl(PR_GET_SECCOMP) != 0) GTEST_SKIP() << "under a seccomp filter, every policy stays";
  EXPECT_EQ(policyOfThread(SCHED_OTHER), SCHED_BATCH);
  EXPECT_EQ(policyOfThread(SCHED_IDLE), SCHED_IDLE);
}

TEST(ThreadsDeathTest, ASandboxThatForbidsAPolicyDoesNotEndTheHost) {
  const auto startInSandbox = [] {
    std::array filter{sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                      sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sched_setscheduler, 0, 1),
                      sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
                      sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog program{filter.size(), filter.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
      _exit(1);
    std::promise<void> started;
    if (!startThread(
            "kelvo.test", [&] { started.set_value(); }, [] {}))
      _exit(2);
    started.get_future().wait();
    _exit(0);
  };
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a new program: a forked child starts no thread
  EXPECT_EXIT(startInSandbox(), testing::ExitedWithCode(0), "");
}

/// A thread that sleeps until an alarm takes on tasks, too; then the other one watches the alarm.
TEST(ThreadPool, AnAlarmRingsWhileOneThreadIsBusy) {
  for (int round = 0; round < 3; ++round) {
    std::latch rung(1), late(1);
    TimerService::schedule(1h, [&] { late.count_down(); });
    const auto busy = keepBusy([](auto task) { DispatchQueue::global().async(task); });
    TimerService::schedule(20ms, [&] { rung.count_down(); });
    rung.wait();
    Clock::advance(1h);
    late.wait();
  }
}

TEST(Queues, AnExceptionEndsOnlyItsTask) {
  const LogCapture log;
  std::latch alarms(1);
  TimerService::schedule(std::chrono::nanoseconds::max(), [] { FAIL() << "due in centuries"; });
  TimerService::schedule(1ms, [] { throw std::runtime_error("loud"); });
  TimerService::schedule(2ms, [&] { alarms.count_down(); });
  DispatchQueue queue("throwing");
  EXPECT_THROW(queue.sync([] { throw std::runtime_error("to the caller"); }), std::runtime_error);
  queue.async([] { throw std::runtime_error("to the log"); });
  queue.async([] { throw 42; });
  MainQueue::async([] { throw std::runtime_error("broken"); });
  waitForMainLoop();
  EXPECT_EQ(queue.sync([] { return 7; }), 7);
  EXPECT_EQ(log.count("<KLV ERROR> A task on throwing threw: to the log"), 1U);
  EXPECT_EQ(log.count("<KLV ERROR> A task on throwing threw an unknown exception"), 1U);
  EXPECT_EQ(log.count("<KLV ERROR> A task threw: broken MainQueue"), 1U);
  alarms.wait();
  EXPECT_EQ(log.count("<KLV ERROR> An alarm threw: loud"), 1U);
}

TEST(Thread, AForkedChildRunsSyncAtOnceAndDropsAsynchronousTasks) {
  DispatchQueue queue("forked");
  // The child inherits a queue whose owner, a thread of the parent, does not exist there.
  const auto busy = keepBusy([&](auto task) { queue.async(task); });
  const auto child = [&] {
    bool ran = false, dropped = true;
    queue.async([&] { dropped = false; });
    queue.after(0s, [&] { dropped = false; });
    MainQueue::async([&] { dropped = false; });
    queue.sync([&] { ran = true; });
    _exit(ran && dropped &&
                  !startThread(
                      "never", [] {}, [] {})
              ? 0
              : 1);
  };
  EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}

// --- The main loop

/// A host's main loop. It runs a task only when the test calls `turn`, on the test's thread.
class HostLoop {
 public:
  HostLoop() {
    MainQueue::handOver(
        [this](MainQueue::Task task) {
          const Lock lock(mutex_);
          tasks_.push_back(std::move(task));
        },
        [thread = std::this_thread::get_id()] { return std::this_thread::get_id() == thread; });
  }
  ~HostLoop() { MainQueue::handOver({}, {}); }
  std::size_t waiting() {
    const Lock lock(mutex_);
    return tasks_.size();
  }
  /// Waits for a task and runs it.
  void turn() {
    while (waiting() == 0) std::this_thread::yield();
    Lock lock(mutex_);
    const auto task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
  }

 private:
  Mutex mutex_;
  std::deque<MainQueue::Task> tasks_ GUARDED_BY(mutex_);
};

TEST(MainQueue, MovesWaitingTasksToTheHostsLoopAndReturnsToItsOwn) {
  auto busy = keepBusy(MainQueue::async);
  std::string seen;
  const auto see = [&seen](char letter) { return [&seen, letter] { seen += MainQueue::isCurrent() ? letter : '?'; }; };
  for (const char letter : {'a', 'b', 'c'}) MainQueue::async(see(letter));
  {
    HostLoop host;
    ASSERT_EQ(host.waiting(), 3U);
    MainQueue::async(see('d'));
    for (int i = 0; i < 4; ++i) host.turn();
    busy.set_value();
    EXPECT_EQ(seen, "abcd");
  }
  runOnMainLoop([test = std::this_thread::get_id()] { EXPECT_NE(std::this_thread::get_id(), test); });
  EXPECT_FALSE(MainQueue::isCurrent());
}

TEST(MainQueue, SurvivesAHostWhoseFunctionsThrow) {
  const LogCapture log;
  MainQueue::handOver([](MainQueue::Task) { throw std::runtime_error("no loop"); }, []() -> bool { throw 1; });
  MainQueue::async([] { FAIL() << "dropped"; });
  EXPECT_FALSE(MainQueue::isCurrent());
  EXPECT_EQ(log.count("<KLV ERROR> The host's post threw: no loop"), 1U);
  EXPECT_EQ(log.count("<KLV ERROR> The host's isCurrent threw an unknown exception"), 1U);
  MainQueue::handOver({}, {});
  waitForMainLoop();
}

TEST(MainQueue, ARepeatingTaskSkipsTicksWhileOneWaits) {
  HostLoop host;
  static int ticks = 0;
  MainQueue::repeatEvery(10s, [] { ++ticks; });
  const auto waitingAfter = [&](std::chrono::seconds time) {  // counts after all timers that are due have fired
    std::latch passed(1);
    TimerService::schedule(time, [&] { passed.count_down(); });
    Clock::advance(time);
    passed.wait();
    return host.waiting();
  };
  EXPECT_EQ(waitingAfter(9s), 0U);
  for (const auto step : {2s, 10s, 3600s}) EXPECT_EQ(waitingAfter(step), 1U) << "the other ticks are skipped";
  host.turn();
  EXPECT_EQ(waitingAfter(10s), 1U) << "the rhythm continues";
  host.turn();
  EXPECT_EQ(ticks, 2);
}

}  // namespace
}  // namespace kelvo::test
