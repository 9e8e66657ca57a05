#include "platform/DispatchQueue.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>

#include "platform/Immortal.h"
#include "platform/Problem.h"
#include "platform/Thread.h"
#include "platform/ThreadPool.h"
#include "platform/TimerService.h"

namespace kelvo {
namespace {

/// A pool thread turns to other queues after this many tasks of one.
constexpr int kTasksAtATime = 64;

/// Stands on the stack of a thread while it is inside a task; innermost first.
struct Frame {
  explicit Frame(const void* itsQueue) noexcept : queue(itsQueue), outer(innermost) { innermost = this; }
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;
  ~Frame() { innermost = outer; }

  const void* queue;
  Frame* outer;
  static thread_local Frame* innermost;
};
thread_local Frame* Frame::innermost = nullptr;

/// A thread that waits in `sync`; lives on that thread's stack, all under the queue's mutex.
struct Ticket {
  std::condition_variable changed;
  bool granted = false;
};

/// A task, or a ticket that stands for the task its thread will run itself.
struct Item {
  DispatchQueue::Task task;
  Ticket* ticket = nullptr;
};

}  // namespace

/// Of a serial queue, one thread at a time is the owner and runs what stands in front. Two things always hold
/// under the mutex: when a ticket waits there is an owner, and when a task waits there is an owner or a drain
/// is scheduled on the pool. So nobody waits for a thread that never comes.
struct DispatchQueue::State : std::enable_shared_from_this<State> {
  State(std::string itsLabel, Kind itsKind) : label(std::move(itsLabel)), kind(itsKind) {}

  void enqueue(Task task) {
    if (inForkedChild()) return;
    if (kind == Kind::concurrent) {
      return postToPool([self = shared_from_this(), ownTask = std::move(task)] { self->runReporting(ownTask); });
    }
    bool isFirst = false;
    {
      const std::lock_guard lock(mutex);
      items.push_back({std::move(task)});
      isFirst = !owned && !std::exchange(scheduled, true);
    }
    if (isFirst) postDrain();  // the thread that it wakes finds the mutex free
  }

  /// Drains on the calling thread up to the caller's place in the queue, and makes it the owner.
  void acquire() {
    std::unique_lock lock(mutex);
    Ticket mine;
    items.push_back({nullptr, &mine});
    ++tickets;
    if (owned) {
      mine.changed.wait(lock, [&] { return mine.granted; });
    }
    owned = true;
    while (items.front().ticket != &mine) runFront(lock);
    items.pop_front();
    --tickets;
  }

  void release() {
    const std::lock_guard lock(mutex);
    letGo();
  }

  void runReporting(const Task& task) const noexcept {
    const Frame frame(this);
    try {
      task();
    } catch (const std::exception& exception) {
      reportProblem("DispatchQueue", "A task on " + label + " threw: " + exception.what());
    } catch (...) {
      reportProblem("DispatchQueue", "A task on " + label + " threw an unknown exception");
    }
  }

  const std::string label;
  const Kind kind;

 private:
  void drainOnPool() {
    std::unique_lock lock(mutex);
    scheduled = false;
    if (owned) return;  // a thread in `sync` was faster, and cares for the rest
    owned = true;
    for (int left = kTasksAtATime; left > 0 && !items.empty() && items.front().ticket == nullptr; --left) {
      runFront(lock);
    }
    letGo();
  }

  void runFront(std::unique_lock<std::mutex>& lock) {
    Task task = std::move(items.front().task);
    items.pop_front();
    lock.unlock();
    runReporting(task);
    task = nullptr;  // what it held is let go outside the lock
    lock.lock();
  }

  /// Hands the ownership to the first thread that waits in `sync`, which needs no pool thread for the tasks before
  /// its own; else gives it up.
  void letGo() {
    if (tickets > 0) {
      const auto next =
          std::find_if(items.begin(), items.end(), [](const Item& item) { return item.ticket != nullptr; });
      next->ticket->granted = true;
      next->ticket->changed.notify_one();  // under the mutex: the ticket dies as soon as its thread wakes
      return;
    }
    owned = false;
    if (!items.empty()) schedule();
  }

  void schedule() {
    if (!std::exchange(scheduled, true)) postDrain();
  }

  void postDrain() {
    postToPool([self = shared_from_this()] { self->drainOnPool(); });
  }

  std::mutex mutex;
  std::deque<Item> items;
  std::size_t tickets = 0;  // among them
  bool owned = false;
  bool scheduled = false;  // a drain is being posted or was, and has not begun
};

DispatchQueue::DispatchQueue(std::string label, Kind kind) : state_(std::make_shared<State>(std::move(label), kind)) {}

DispatchQueue::~DispatchQueue() = default;

const std::string& DispatchQueue::label() const noexcept {
  return state_->label;
}

void DispatchQueue::async(Task task) {
  state_->enqueue(std::move(task));
}

void DispatchQueue::runSync(const std::function<void()>& task) {
  const auto state = state_;  // the task may destroy the handle
  const bool atOnce = state->kind == Kind::concurrent || isCurrent() || inForkedChild();
  if (!atOnce) state->acquire();
  struct Release {
    State* owned;
    ~Release() {
      if (owned != nullptr) owned->release();
    }
  };
  const Release release{atOnce ? nullptr : state.get()};
  const Frame frame(state.get());
  task();
}

void DispatchQueue::after(std::chrono::nanoseconds delay, Task task) {
  TimerService::schedule(delay,
                         [state = state_, ownTask = std::move(task)]() mutable { state->enqueue(std::move(ownTask)); });
}

bool DispatchQueue::isCurrent() const noexcept {
  for (const Frame* frame = Frame::innermost; frame != nullptr; frame = frame->outer) {
    if (frame->queue == state_.get()) return true;
  }
  return false;
}

DispatchQueue& DispatchQueue::global() {
  static Immortal<DispatchQueue> instance("com.kelvo.global.default", Kind::concurrent);
  return *instance;
}

}  // namespace kelvo
