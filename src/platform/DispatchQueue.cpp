#include "platform/DispatchQueue.h"

#include <algorithm>
#include <condition_variable>
#include <deque>

#include "platform/FileLimitShield.h"
#include "platform/Problem.h"
#include "platform/ProcessWide.h"
#include "platform/Thread.h"
#include "platform/ThreadPool.h"
#include "platform/TimerService.h"

namespace kelvo {
namespace {

/// After this many tasks of one queue, a pool thread runs tasks of other queues.
constexpr int kTasksAtATime = 64;

/// An entry on a thread's stack of running tasks. It lives while the thread is inside a task of `queue`.
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

/// Represents a thread that waits in `sync`, and lives on that thread's stack. The queue's mutex guards all fields.
struct Ticket {
  std::condition_variable changed;
  bool granted = false;
};

/// A queued task, or the ticket of a thread that will run its task itself.
struct Item {
  DispatchQueue::Task task;
  Ticket* ticket = nullptr;
};

}  // namespace

/// At most one thread owns a serial queue at a time; the owner runs its tasks in order.
///
/// The owner takes all submitted items at once, into `batch`, and runs them without the mutex.
///
/// Under the mutex, two things always hold: while a ticket waits, the queue has an owner; while a task waits, the queue
/// has an owner or a drain is scheduled on the pool. So neither waits for a thread that never comes.
struct DispatchQueue::State : std::enable_shared_from_this<State> {
  State(std::string itsLabel, Kind itsKind) : label(std::move(itsLabel)), kind(itsKind) {}

  void enqueue(Task task) EXCLUDES(mutex) {
    if (inForkedChild()) return;
    if (kind == Kind::concurrent) {
      return pool::post([self = shared_from_this(), ownTask = std::move(task)] { self->runReporting(ownTask); });
    }
    bool isFirst = false;
    {
      const Lock lock(mutex);
      items.push_back({std::move(task)});
      isFirst = !owned && !std::exchange(scheduled, true);
    }
    if (isFirst) postDrain();  // after the unlock, so that the woken thread finds the mutex free
  }

  /// Makes the calling thread the owner, after all tasks submitted earlier have run. Blocks until then. The calling
  /// thread runs these tasks itself unless another thread does.
  void acquire() EXCLUDES(mutex) {
    Lock lock(mutex);
    Ticket mine;
    items.push_back({nullptr, &mine});
    ++tickets;
    if (owned) {
      while (!mine.granted) lock.wait(mine.changed);
    }
    owned = true;
    for (fill(); batch.front().ticket != &mine; fill()) {
      lock.unlock();
      while (hasTask()) runFront();
      lock.lock();
    }
    batch.pop_front();
    --tickets;
  }

  void release() EXCLUDES(mutex) {
    const Lock lock(mutex);
    passOn();
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
  void drainOnPool() EXCLUDES(mutex) {
    Lock lock(mutex);
    scheduled = false;
    if (owned) return;  // a thread in `sync` was faster; it passes the remaining tasks on
    owned = true;
    int left = kTasksAtATime;
    for (fill(); left > 0 && hasTask(); fill()) {
      lock.unlock();
      for (; left > 0 && hasTask(); --left) runFront();
      lock.lock();
    }
    passOn();
  }

  /// Takes the submitted items if the batch is done. Thread: the owner.
  void fill() REQUIRES(mutex) {
    if (batch.empty()) batch.swap(items);
  }

  /// Returns whether the batch begins with a task. Thread: the owner.
  [[nodiscard]] bool hasTask() const noexcept { return !batch.empty() && batch.front().ticket == nullptr; }

  /// Runs the first task of the batch. Thread: the owner.
  void runFront() EXCLUDES(mutex) {
    const pool::NextTask nextTask;
    const Task task = std::move(batch.front().task);
    batch.pop_front();
    runReporting(task);
  }

  /// Passes the ownership to the first thread that waits in `sync`; that thread runs the tasks before its own without a
  /// pool thread. If no thread waits, gives the ownership up and schedules a drain for the remaining tasks.
  void passOn() REQUIRES(mutex) {
    if (Ticket* const next = firstTicket()) {
      next->granted = true;
      next->changed.notify_one();  // with the mutex held: the ticket dies as soon as its thread wakes
      return;
    }
    owned = false;
    if (!batch.empty() || !items.empty()) schedule();
  }

  [[nodiscard]] Ticket* firstTicket() const REQUIRES(mutex) {
    if (tickets == 0) return nullptr;
    const auto waits = [](const Item& item) { return item.ticket != nullptr; };
    const auto inBatch = std::find_if(batch.begin(), batch.end(), waits);
    return inBatch != batch.end() ? inBatch->ticket : std::find_if(items.begin(), items.end(), waits)->ticket;
  }

  void schedule() REQUIRES(mutex) {
    if (!std::exchange(scheduled, true)) postDrain();
  }

  void postDrain() {
    pool::post([self = shared_from_this()] { self->drainOnPool(); });
  }

  Mutex mutex;
  std::deque<Item> items GUARDED_BY(mutex);   // submitted since the owner last looked
  std::deque<Item> batch;                     // before `items`; only the owner uses it
  std::size_t tickets GUARDED_BY(mutex) = 0;  // the number of tickets in both
  bool owned GUARDED_BY(mutex) = false;
  bool scheduled GUARDED_BY(mutex) = false;  // a drain is being posted or is posted, but has not begun
};

DispatchQueue::DispatchQueue(std::string label, Kind kind) : state_(std::make_shared<State>(std::move(label), kind)) {}

DispatchQueue::~DispatchQueue() = default;

void DispatchQueue::async(Task task) {
  state_->enqueue(std::move(task));
}

void DispatchQueue::runSync(const std::function<void()>& task) {
  const FileLimitShield shield;  // the task, or an earlier one that this thread runs, may write a file
  const auto state = state_;     // the task may destroy the handle
  const bool atOnce = state->kind == Kind::concurrent || isCurrent() || inForkedChild();
  if (!atOnce) state->acquire();
  const pool::NextTask nextTask;
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

bool DispatchQueue::isInsideTask() noexcept {
  return Frame::innermost != nullptr;
}

DispatchQueue& DispatchQueue::global() {
  struct Global {
    DispatchQueue queue{"com.kelvo.global.default", Kind::concurrent};
  };
  static ProcessWide<Global> instance;
  return instance->queue;
}

}  // namespace kelvo
