#include "platform/TimerService.h"

#include <algorithm>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <map>
#include <mutex>

#include "platform/Clock.h"
#include "platform/Immortal.h"
#include "platform/Problem.h"
#include "platform/Thread.h"
#include "platform/ThreadPool.h"

namespace kelvo {
namespace {

constexpr auto kLongestDelay = std::chrono::hours(24 * 365 * 100);  // keeps deadlines far from overflow

class Alarms {
 public:
  void add(std::chrono::nanoseconds delay, std::function<void()> fire) {
    const auto deadline = Clock::monotonic() + std::min<std::chrono::nanoseconds>(delay, kLongestDelay);
    const std::lock_guard lock(mutex_);
    const auto added = pending_.emplace(deadline, std::move(fire));
    if (added == pending_.begin()) arm();
  }

  void rearm() {
    const std::lock_guard lock(mutex_);
    arm();
  }

 private:
  /// Under the mutex. While alarms ring there is no need: the one who rings them looks again, and arms at the end.
  void arm() {
    if (ringing_ || pending_.empty()) return;
    timer_.expires_after(pending_.begin()->first - Clock::monotonic());
    timer_.async_wait([this](const boost::system::error_code& error) {
      if (!error) ring();
    });
  }

  /// One thread rings at a time, so that alarms go off in the order of their deadlines.
  void ring() {
    std::unique_lock lock(mutex_);
    if (ringing_) return;
    ringing_ = true;
    while (!pending_.empty() && pending_.begin()->first <= Clock::monotonic()) {
      auto due = pending_.extract(pending_.begin());
      lock.unlock();
      fire(due.mapped());
      due = {};  // what the alarm held is let go outside the lock
      lock.lock();
    }
    ringing_ = false;
    arm();
  }

  static void fire(const std::function<void()>& alarm) {
    try {
      alarm();
    } catch (const std::exception& exception) {
      reportProblem("TimerService", std::string("An alarm threw: ") + exception.what());
    } catch (...) {
      reportProblem("TimerService", "An alarm threw an unknown exception");
    }
  }

  std::mutex mutex_;
  std::multimap<Clock::Instant, std::function<void()>> pending_;  // equal deadlines stay in order of arrival
  boost::asio::steady_timer timer_{threadPool()};                 // armed for the first of them
  bool ringing_ = false;
};

Alarms& alarms() {
  static Immortal<Alarms> instance;
  return *instance;
}

}  // namespace

void TimerService::schedule(std::chrono::nanoseconds delay, std::function<void()> fire) {
  if (!inForkedChild()) alarms().add(delay, std::move(fire));
}

void TimerService::clockMoved() {
  if (!inForkedChild()) alarms().rearm();
}

}  // namespace kelvo
