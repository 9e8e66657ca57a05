#include "platform/Context.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <utility>
#include <vector>

#include "platform/Immortal.h"
#include "platform/ThreadSafety.h"

namespace kelvo::context {
namespace {

constexpr std::chrono::minutes kLongestWork(1);

struct Running {
  std::thread thread;
  std::function<void()> wake;
};

/// The context of this process.
struct Present {
  Mutex mutex;
  std::condition_variable idle;
  Object* latest GUARDED_BY(mutex) = nullptr;
  std::vector<Running> threads GUARDED_BY(mutex);
  std::vector<void (*)()> resets GUARDED_BY(mutex);
  std::size_t work GUARDED_BY(mutex) = 0;
  std::size_t begun GUARDED_BY(mutex) = 0;  // all work so far
  EventLoop loop;                           // used by the test's thread only
  std::atomic<bool> isEnding{false};
};

Present& present() {
  static Immortal<Present> instance;
  return *instance;
}

void endThreads() {
  std::vector<Running> threads;
  {
    const Lock lock(present().mutex);
    threads.swap(present().threads);
  }
  for (const Running& each : threads) each.wake();
  for (Running& each : threads) each.thread.join();
}

}  // namespace

void add(Object& object) {
  const Lock lock(present().mutex);
  object.before_ = std::exchange(present().latest, &object);
}

void atEnd(void (*reset)()) {
  const Lock lock(present().mutex);
  present().resets.push_back(reset);
}

void add(std::thread thread, std::function<void()> wake) {
  const Lock lock(present().mutex);
  present().threads.push_back({std::move(thread), std::move(wake)});
}

bool isEnding() noexcept {
  return present().isEnding.load();
}

void end() {
  Present& now = present();
  now.isEnding.store(true);
  endThreads();
  // The destruction of an object may use others, which are then made anew: so each is taken from the list first.
  for (;;) {
    Lock lock(now.mutex);
    Object* const object = now.latest;
    if (object == nullptr) break;
    now.latest = object->before_;
    lock.unlock();
    object->destroy();
  }
  std::vector<void (*)()> resets;
  {
    const Lock lock(now.mutex);
    resets = now.resets;
    now.work = 0;
  }
  for (const auto reset : resets) reset();
  now.isEnding.store(false);
}

void workBegins() noexcept {
  const Lock lock(present().mutex);
  ++present().work;
  ++present().begun;
}

void workEnds() noexcept {
  const Lock lock(present().mutex);
  if (--present().work == 0) present().idle.notify_all();
}

bool waitUntilIdle() {
  const auto deadline = std::chrono::steady_clock::now() + kLongestWork;
  Present& now = present();
  Lock lock(now.mutex);
  for (;;) {
    const std::size_t before = now.begun;
    while (now.work > 0) {
      if (!lock.waitUntil(now.idle, deadline)) return now.work == 0;
    }
    if (!now.loop.handleEvents) return true;
    lock.unlock();
    now.loop.handleEvents();
    lock.lock();
    if (now.begun == before) return true;
    if (std::chrono::steady_clock::now() > deadline) return false;
  }
}

void setEventLoop(EventLoop loop) {
  present().loop = std::move(loop);
}

void beginLaunch() {
  if (present().loop.beginLaunch) present().loop.beginLaunch();
}

void endLaunch() {
  if (present().loop.endLaunch) present().loop.endLaunch();
}

}  // namespace kelvo::context
