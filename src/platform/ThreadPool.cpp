#include "platform/ThreadPool.h"

#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <optional>
#include <utility>

#include "platform/ProcessWide.h"
#include "platform/Thread.h"
#include "platform/ThreadSafety.h"

namespace kelvo {
namespace {

thread_local bool isWorker = false;
thread_local bool postpones = false;     // inside a `ShortTask`
thread_local bool hasPostponed = false;  // a wake-up for a posted task

/// While the alarm is set and a thread sleeps, one of the sleeping threads is the watcher: it sleeps until the alarm.
class Pool {
 public:
  Pool() {
    constexpr std::array<const char*, 2> kNames{"kelvo.pool.1", "kelvo.pool.2"};
    for (std::size_t i = 0; i < kNames.size(); ++i) {
      startThread(
          kNames[i], [this, &self = workers_[i]] { work(self); }, [this] { wakeAll(); });
    }
  }
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;
  /// Runs the tasks that are left. Only the end of a context comes here, after its threads have ended.
  ~Pool() EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    while (!tasks_.empty()) runFront();
  }

  void post(std::function<void()> task) EXCLUDES(mutex_) {
    workBegins();
    Lock lock(mutex_);
    tasks_.push_back(std::move(task));
    hasPostponed = postpones;
    Worker* const woken = postpones ? nullptr : wakeOne();
    lock.unlock();
    notify(woken);
  }

  void wakeForTasks() EXCLUDES(mutex_) {
    Lock lock(mutex_);
    Worker* const woken = tasks_.empty() ? nullptr : wakeOne();
    lock.unlock();
    notify(woken);
  }

  bool runOnWaking(void (*errand)()) EXCLUDES(mutex_) {
    Lock lock(mutex_);
    Worker* const woken = wakeOne();
    if (arriving_ == nullptr) return false;
    errand_ = errand;
    lock.unlock();
    notify(woken);
    return true;
  }

  void setAlarm(Clock::Instant deadline, void (*alarm)()) EXCLUDES(mutex_) {
    Lock lock(mutex_);
    deadline_ = deadline;
    alarm_ = alarm;
    Worker* const woken = watcher_ != nullptr ? watcher_ : wakeOne();  // the watcher sleeps again, until `deadline`
    lock.unlock();
    notify(woken);
  }

 private:
  struct Worker {
    std::condition_variable wake;
    bool sleeps = false;
  };

  void work(Worker& self) EXCLUDES(mutex_) {
    isWorker = true;
    Lock lock(mutex_);
    while (!threadsMustEnd()) {
      if (errand_ != nullptr) {
        runUnlocked(std::exchange(errand_, nullptr));
      } else if (deadline_ && *deadline_ <= Clock::monotonic()) {
        deadline_.reset();
        runUnlocked(alarm_);
      } else if (!tasks_.empty()) {
        runFront();
      } else {
        sleep(self, lock);
      }
    }
  }

  void wakeAll() EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    for (Worker& worker : workers_) {
      worker.sleeps = false;
      worker.wake.notify_one();
    }
  }

  void runUnlocked(void (*function)()) REQUIRES(mutex_) {
    mutex_.unlock();
    function();
    mutex_.lock();
  }

  void runFront() REQUIRES(mutex_) {
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    hasPostponed = false;
    const bool isMoreToDo = !tasks_.empty() || (deadline_ && watcher_ == nullptr);
    Worker* const woken = isMoreToDo ? wakeOne() : nullptr;
    mutex_.unlock();
    notify(woken);
    task();
    task = nullptr;  // destroys the captures while the mutex is free
    workEnds();
    mutex_.lock();
  }

  void sleep(Worker& self, Lock& lock) REQUIRES(mutex_) {
    self.sleeps = true;
    if (deadline_ && watcher_ == nullptr) {
      watcher_ = &self;
      const auto rest = *deadline_ - Clock::monotonic();
      static_cast<void>(lock.waitUntil(self.wake, std::chrono::steady_clock::now() + rest));
      watcher_ = nullptr;
      self.sleeps = false;
    } else {
      while (self.sleeps) lock.wait(self.wake);
    }
    if (arriving_ == &self) arriving_ = nullptr;
  }

  /// Chooses a sleeping thread for new work; the watcher only if no other sleeps. Returns nullptr if none is needed.
  Worker* wakeOne() REQUIRES(mutex_) {
    if (arriving_ != nullptr) return nullptr;
    for (Worker& worker : workers_) {
      if (worker.sleeps && (arriving_ == nullptr || arriving_ == watcher_)) arriving_ = &worker;
    }
    if (arriving_ != nullptr) arriving_->sleeps = false;
    return arriving_;
  }

  /// Called without the mutex, so that the woken thread finds it free.
  static void notify(Worker* woken) {
    if (woken != nullptr) woken->wake.notify_one();
  }

  Mutex mutex_;
  std::deque<std::function<void()>> tasks_ GUARDED_BY(mutex_);
  std::array<Worker, 2> workers_;
  Worker* watcher_ GUARDED_BY(mutex_) = nullptr;
  Worker* arriving_ GUARDED_BY(mutex_) = nullptr;  // woken, but does not have the mutex yet
  void (*errand_)() GUARDED_BY(mutex_) = nullptr;
  void (*alarm_)() GUARDED_BY(mutex_) = nullptr;
  std::optional<Clock::Instant> deadline_ GUARDED_BY(mutex_);
};

Pool& instance() {
  static ProcessWide<Pool> pool;
  return *pool;
}

}  // namespace

void pool::post(std::function<void()> task) {
  instance().post(std::move(task));
}

pool::ShortTask::ShortTask() noexcept {
  postpones = isWorker;
}

pool::ShortTask::~ShortTask() {
  postpones = false;
}

pool::NextTask::NextTask() : isInShortTask_(std::exchange(postpones, false)) {
  if (std::exchange(hasPostponed, false)) instance().wakeForTasks();
}

pool::NextTask::~NextTask() {
  postpones = isInShortTask_;
}

bool pool::runOnWaking(void (*errand)()) {
  return instance().runOnWaking(errand);
}

void pool::setAlarm(Clock::Instant deadline, void (*alarm)()) {
  instance().setAlarm(deadline, alarm);
}

}  // namespace kelvo
