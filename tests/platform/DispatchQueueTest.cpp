#include "platform/DispatchQueue.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "QueueTestSupport.h"
#include "platform/Clock.h"
#include "platform/MainQueue.h"
#include "platform/Thread.h"
#include "support/LogCapture.h"

namespace kelvo::test {
namespace {

using namespace std::chrono_literals;

TEST(DispatchQueue, SyncNeedsNoPoolThread) {
  const BusyPool busy;
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
  DispatchQueue outer("outer");
  DispatchQueue inner("inner");
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
    const BusyPool busy;
    auto queue = std::make_unique<DispatchQueue>("short-lived");
    for (int i = 0; i < 100; ++i) queue->async([&] { done.count_down(); });
    queue->after(0s, [&] { done.count_down(); });
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
  EXPECT_EQ(queue.sync([] { return 7; }), 7);
  EXPECT_EQ(log.count("<KLV ERROR> A task on throwing threw: to the log"), 1U);
  EXPECT_EQ(log.count("<KLV ERROR> A task on throwing threw an unknown exception"), 1U);
}

TEST(DispatchQueue, EightThreadsMixingSyncAndAsyncExcludeEachOtherAndLoseNothing) {
  constexpr int kThreads = 8;
  constexpr int kTasks = 500;
  DispatchQueue queue("stress");
  std::array<int, kThreads> last{};
  int total = 0;  // plain on purpose: two tasks at a time are a data race
  bool disorder = false;
  std::atomic<int> inside{0};
  const auto task = [&](std::size_t thread, int number) {
    if (inside.fetch_add(1) != 0 || last[thread] != number) disorder = true;
    last[thread] = number + 1;
    ++total;
    if (number % 8 == 0) std::this_thread::yield();  // time for another to come in, if it could
    inside.fetch_sub(1);
  };
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kTasks; ++i) {
        if ((static_cast<std::size_t>(i) + thread) % 3 == 0) {
          queue.sync([&] { task(thread, i); });
        } else {
          queue.async([&task, thread, i] { task(thread, i); });
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  queue.sync([] {});
  EXPECT_EQ(total, kThreads * kTasks);
  EXPECT_FALSE(disorder);
}

TEST(DispatchQueue, AQueueThatNeverEndsLeavesThePoolToOthers) {
  std::atomic<bool> stop{false};
  std::latch stopped(2);
  DispatchQueue greedy[] = {DispatchQueue("greedy.1"), DispatchQueue("greedy.2")};
  std::function<void(DispatchQueue&)> again = [&](DispatchQueue& queue) {
    queue.async([&] { stop ? stopped.count_down() : again(queue); });
  };
  for (auto& queue : greedy) again(queue);
  std::latch served(1);
  DispatchQueue modest("modest");
  modest.async([&] { served.count_down(); });
  served.wait();
  stop = true;
  stopped.wait();
  for (auto& queue : greedy) queue.sync([] {});
}

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
  std::latch entered(1), release(1);
  queue.async([&] {
    entered.count_down();
    release.wait();
  });
  entered.wait();  // in the child, the queue is for ever owned by a thread that is not there
  const pid_t child = fork();
  if (child == 0) {
    bool ran = false;
    bool dropped = true;
    queue.async([&] { dropped = false; });
    queue.after(0s, [&] { dropped = false; });
    MainQueue::async([&] { dropped = false; });
    queue.sync([&] { MainQueue::sync([&] { ran = true; }); });
    _exit(inForkedChild() && ran && dropped && !startThread("never", [] {}) ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(inForkedChild());
  release.count_down();
  queue.sync([] {});
}

}  // namespace
}  // namespace kelvo::test
