#include "platform/MainQueue.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <string>

#include "platform/Clock.h"
#include "platform/Problem.h"
#include "platform/ProcessWide.h"
#include "platform/Thread.h"
#include "platform/ThreadSafety.h"
#include "platform/TimerService.h"

namespace kelvo {
namespace {

struct Host {
  std::function<void(MainQueue::Task)> post;
  std::function<bool()> isCurrent;
};

thread_local bool insideTask = false;

/// Runs `body` and reports an exception from it as a problem. `part` names the body in the report.
template <class F>
void reportingExceptions(const char* part, F&& body) noexcept {
  try {
    body();
  } catch (const std::exception& exception) {
    reportProblem("MainQueue", std::string(part) + " threw: " + exception.what());
  } catch (...) {
    reportProblem("MainQueue", std::string(part) + " threw an unknown exception");
  }
}

void run(const MainQueue::Task& task) {
  const bool before = std::exchange(insideTask, true);
  reportingExceptions("A task", task);
  insideTask = before;
}

/// Holds the waiting tasks. Without a host, the library's own thread runs them. With a host, one thread at a time
/// forwards them to the host's loop: so they keep their order, and no host function is called with the mutex held.
class Loop {
 public:
  void add(MainQueue::Task task) EXCLUDES(mutex_) {
    workBegins();
    const Lock lock(mutex_);
    waiting_.push_back(std::move(task));
    deliver();
  }

  void setHost(std::shared_ptr<const Host> host) EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    host_.swap(host);    // the argument destroys the former host's functions after the unlock
    wake_.notify_one();  // the library's own thread ends if there is a host now
    deliver();
  }

  std::shared_ptr<const Host> host() EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    return host_;
  }

 private:
  /// Forwards the waiting tasks to the host, or wakes the library's own thread. Releases the mutex while it calls the
  /// host.
  void deliver() REQUIRES(mutex_) {
    if (forwarding_) return;  // the forwarding thread also takes our task
    forwarding_ = true;
    while (host_ != nullptr && !waiting_.empty()) {
      auto host = host_;
      auto task = takeFirst();
      mutex_.unlock();
      reportingExceptions("The host's post", [&] { host->post([ownTask = std::move(task)] { run(ownTask); }); });
      host.reset();
      workEnds();  // the rest is the host's
      mutex_.lock();
    }
    forwarding_ = false;
    if (waiting_.empty()) return;
    if (!running_)
      running_ = startThread(
          "kelvo.main", [this] { runOwnLoop(); }, [this] { wake(); });
    wake_.notify_one();
  }

  void runOwnLoop() EXCLUDES(mutex_) {
    Lock lock(mutex_);
    while (host_ == nullptr && !threadsMustEnd()) {
      if (waiting_.empty() || forwarding_) {
        lock.wait(wake_);
        continue;
      }
      auto task = takeFirst();
      lock.unlock();
      run(task);
      task = nullptr;
      workEnds();
      lock.lock();
    }
    running_ = false;
  }

  void wake() EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    wake_.notify_one();
  }

  MainQueue::Task takeFirst() REQUIRES(mutex_) {
    auto task = std::move(waiting_.front());
    waiting_.pop_front();
    return task;
  }

  Mutex mutex_;
  std::condition_variable wake_;  // notifies the library's own thread of a task or of a new host
  std::deque<MainQueue::Task> waiting_ GUARDED_BY(mutex_);
  std::shared_ptr<const Host> host_ GUARDED_BY(mutex_);
  bool forwarding_ GUARDED_BY(mutex_) = false;  // a thread is inside `deliver`
  bool running_ GUARDED_BY(mutex_) = false;     // the library's own thread exists
};

Loop& loop() {
  static ProcessWide<Loop> instance;
  return *instance;
}

/// A repeating task. Thread: one timer at a time uses the fields.
struct Repetition {
  std::chrono::nanoseconds interval;
  MainQueue::Task task;
  Clock::Instant deadline;
  std::weak_ptr<void> waitingTick;  // expires when the previous tick starts, or when the host drops it
};

void scheduleTick(const std::shared_ptr<Repetition>& repetition) {
  TimerService::schedule(repetition->deadline - Clock::monotonic(), [repetition] {
    if (repetition->waitingTick.expired()) {
      auto tick = std::make_shared<bool>();
      repetition->waitingTick = tick;
      MainQueue::async([repetition, tick]() mutable {
        tick.reset();
        repetition->task();
      });
    }
    // After a long sleep of the machine, skips the missed ticks and keeps the rhythm.
    const auto late = Clock::monotonic() - repetition->deadline;
    repetition->deadline += (late / repetition->interval + 1) * repetition->interval;
    scheduleTick(repetition);
  });
}

}  // namespace

void MainQueue::handOver(std::function<void(Task)> post, std::function<bool()> isCurrent) {
  if (inForkedChild()) return;
  loop().setHost(post ? std::make_shared<const Host>(Host{std::move(post), std::move(isCurrent)}) : nullptr);
}

void MainQueue::async(Task task) {
  if (!inForkedChild()) loop().add(std::move(task));
}

bool MainQueue::isCurrent() {
  if (insideTask) return true;
  const auto host = inForkedChild() ? nullptr : loop().host();
  if (host == nullptr || !host->isCurrent) return false;
  bool current = false;
  reportingExceptions("The host's isCurrent", [&] { current = host->isCurrent(); });
  return current;
}

bool MainQueue::isInsideTask() noexcept {
  return insideTask;
}

void MainQueue::repeatEvery(std::chrono::nanoseconds interval, Task task) {
  if (interval.count() <= 0) return;
  scheduleTick(std::make_shared<Repetition>(Repetition{interval, std::move(task), Clock::monotonic() + interval, {}}));
}

}  // namespace kelvo
