#include "platform/TimerService.h"

#include <algorithm>
#include <map>

#include "platform/Clock.h"
#include "platform/Problem.h"
#include "platform/ProcessWide.h"
#include "platform/Thread.h"
#include "platform/ThreadPool.h"
#include "platform/ThreadSafety.h"

namespace kelvo {
namespace {

constexpr std::chrono::hours kLongestDelay{24 * 365 * 100};  // 100 years; keeps deadlines far from overflow

class Alarms {
 public:
  void add(std::chrono::nanoseconds delay, std::function<void()> fire) EXCLUDES(mutex_) {
    const auto deadline = Clock::monotonic() + std::min<std::chrono::nanoseconds>(delay, kLongestDelay);
    const Lock lock(mutex_);
    const auto added = pending_.emplace(deadline, std::move(fire));
    if (added == pending_.begin()) arm();
  }

  void rearm() EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    arm();
  }

  [[nodiscard]] std::optional<Clock::Instant> nextDeadline() EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    return pending_.empty() ? std::nullopt : std::optional(pending_.begin()->first);
  }

  /// Fires the alarms that are due. One thread rings at a time, so that alarms fire in the order of their deadlines.
  void ring() EXCLUDES(mutex_) {
    Lock lock(mutex_);
    if (ringing_) return;
    ringing_ = true;
    while (!pending_.empty() && pending_.begin()->first <= Clock::monotonic()) {
      auto due = pending_.extract(pending_.begin());
      lock.unlock();
      fire(due.mapped());
      due = {};  // destroys the alarm's captures while the mutex is free
      lock.lock();
    }
    ringing_ = false;
    arm();
  }

 private:
  /// Sets the pool's alarm to the first deadline. Does nothing while alarms ring: the ringing thread checks the
  /// deadlines again and sets it at the end.
  void arm() REQUIRES(mutex_);

  static void fire(const std::function<void()>& alarm) {
    try {
      alarm();
    } catch (const std::exception& exception) {
      reportProblem("TimerService", std::string("An alarm threw: ") + exception.what());
    } catch (...) {
      reportProblem("TimerService", "An alarm threw an unknown exception");
    }
  }

  Mutex mutex_;
  /// Alarms with equal deadlines stay in the order of their arrival.
  std::multimap<Clock::Instant, std::function<void()>> pending_ GUARDED_BY(mutex_);
  bool ringing_ GUARDED_BY(mutex_) = false;
};

Alarms& alarms() {
  static ProcessWide<Alarms> instance;
  return *instance;
}

void Alarms::arm() {
  if (ringing_ || pending_.empty()) return;
  const auto first = pending_.begin()->first;
#ifdef KELVO_TESTING  // time stands still: nobody waits for a later deadline
  if (first <= Clock::monotonic()) pool::post([] { alarms().ring(); });
#else
  pool::setAlarm(first, [] { alarms().ring(); });
#endif
}

}  // namespace

void TimerService::schedule(std::chrono::nanoseconds delay, std::function<void()> fire) {
  if (!inForkedChild()) alarms().add(delay, std::move(fire));
}

std::optional<Clock::Instant> TimerService::nextDeadline() {
  return inForkedChild() ? std::nullopt : alarms().nextDeadline();
}

void TimerService::clockMoved() {
  if (!inForkedChild()) alarms().rearm();
}

}  // namespace kelvo
