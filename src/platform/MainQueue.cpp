#include "platform/MainQueue.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <string>

#include "platform/Clock.h"
#include "platform/Immortal.h"
#include "platform/Problem.h"
#include "platform/Thread.h"
#include "platform/TimerService.h"

namespace kelvo {
namespace {

struct Host {
  std::function<void(MainQueue::Task)> post;
  std::function<bool()> isCurrent;
};

thread_local bool insideTask = false;

/// `part` names what of the main loop threw.
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

/// Tasks wait here until the own thread runs them or, with a host, one thread at a time forwards them to it, so that
/// they keep their order and no function of the host is called under the mutex.
class Loop {
 public:
  void add(MainQueue::Task task) {
    std::unique_lock lock(mutex_);
    waiting_.push_back(std::move(task));
    deliver(lock);
  }

  void setHost(std::shared_ptr<const Host> host) {
    std::unique_lock lock(mutex_);
    host_.swap(host);
    wake_.notify_one();  // with a host, the own thread ends
    deliver(lock);
    lock.unlock();  // the former host's functions die outside the lock
  }

  std::shared_ptr<const Host> host() {
    const std::lock_guard lock(mutex_);
    return host_;
  }

 private:
  void deliver(std::unique_lock<std::mutex>& lock) {
    if (forwarding_) return;  // that thread takes ours along
    forwarding_ = true;
    while (host_ != nullptr && !waiting_.empty()) {
      auto host = host_;
      auto task = takeFirst();
      lock.unlock();
      reportingExceptions("The host's post", [&] { host->post([ownTask = std::move(task)] { run(ownTask); }); });
      host.reset();
      lock.lock();
    }
    forwarding_ = false;
    if (waiting_.empty()) return;
    if (!running_) running_ = startThread("kelvo.main", [this] { runOwnLoop(); });
    wake_.notify_one();
  }

  void runOwnLoop() {
    std::unique_lock lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return host_ != nullptr || (!waiting_.empty() && !forwarding_); });
      if (host_ != nullptr) break;
      auto task = takeFirst();
      lock.unlock();
      run(task);
      task = nullptr;
      lock.lock();
    }
    running_ = false;
  }

  MainQueue::Task takeFirst() {
    auto task = std::move(waiting_.front());
    waiting_.pop_front();
    return task;
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<MainQueue::Task> waiting_;
  std::shared_ptr<const Host> host_;
  bool forwarding_ = false;
  bool running_ = false;  // the own thread
};

Loop& loop() {
  static Immortal<Loop> instance;
  return *instance;
}

/// Tells a thread in `sync` that its task is over: run, or dropped by a host whose loop has ended.
struct Completion {
  std::mutex mutex;
  std::condition_variable changed;
  bool over = false;

  void finish() {
    const std::lock_guard lock(mutex);
    over = true;
    changed.notify_one();
  }
};

struct Repetition {
  std::chrono::nanoseconds interval;
  MainQueue::Task task;
  Clock::Instant deadline;
  std::weak_ptr<void> waitingTick;  // alive while the tick before waits in the loop, gone if the host dropped it
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
    // After a long sleep the missed ticks are left out; the next one keeps to the rhythm.
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

void MainQueue::sync(const std::function<void()>& task) {
  if (inForkedChild() || isCurrent()) return task();
  Completion completion;
  bool ran = false;
  std::exception_ptr thrown;
  {
    // Dies with the last copy of the task, whoever holds it.
    const std::shared_ptr<Completion> whenGone(&completion, [](Completion* gone) { gone->finish(); });
    async([&task, &ran, &thrown, whenGone] {
      ran = true;
      try {
        task();
      } catch (...) {
        thrown = std::current_exception();
      }
    });
  }
  std::unique_lock lock(completion.mutex);
  completion.changed.wait(lock, [&] { return completion.over; });
  if (!ran) reportProblem("MainQueue", "The host's main loop dropped a task");
  if (thrown != nullptr) std::rethrow_exception(thrown);
}

void MainQueue::repeatEvery(std::chrono::nanoseconds interval, Task task) {
  if (interval.count() <= 0) return;
  scheduleTick(std::make_shared<Repetition>(Repetition{interval, std::move(task), Clock::monotonic() + interval, {}}));
}

}  // namespace kelvo
