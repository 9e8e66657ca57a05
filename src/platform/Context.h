#pragma once

#include <functional>
#include <thread>

/// The build for tests only: one context owns everything that a process keeps for the library. That is its threads, the
/// objects of `ProcessWide`, and the values that `ResetAtEnd` sets back. The end of a context leaves the library as a
/// new process finds it.
namespace kelvo::context {

/// An object of the context.
class Object {
 public:
  virtual void destroy() noexcept = 0;

 protected:
  ~Object() = default;  // never deleted through this type

 private:
  friend void add(Object& object);
  friend void end();
  Object* before_ = nullptr;  // made earlier
};

/// Gives the context an object that was just made. Thread-safe.
void add(Object& object);
/// Has each end call `reset`. Called by initialisers, on one thread.
void atEnd(void (*reset)());
/// Gives the context a thread. `wake` makes the thread look at `isEnding`. Thread-safe.
void add(std::thread thread, std::function<void()> wake);
/// Returns whether the threads must return, and no new one may start.
[[nodiscard]] bool isEnding() noexcept;

/// Ends all threads and waits for them, destroys the objects, the latest first, and calls the resets. Tasks that still
/// wait are destroyed. Called by the test's thread, while no other thread uses the library.
void end();

// --- Work under way: a task that waits or runs, on the pool or on the library's main loop. A timer that is not due yet
// is none. Work that makes more work begins the new one before it ends itself.
void workBegins() noexcept;
void workEnds() noexcept;
/// Blocks until no work is under way, and no event of the event loop makes more. Returns false after a minute.
[[nodiscard]] bool waitUntilIdle();

/// A host's event loop on the test's thread, which outlives the launches.
struct EventLoop {
  std::function<void()> beginLaunch;   ///< gives the loop to the library of the new launch
  std::function<void()> endLaunch;     ///< does the loop's work at an exit, and takes the loop back
  std::function<void()> handleEvents;  ///< handles the events that wait now
};

/// Has each launch begin and end with this loop, and `waitUntilIdle` handle its events. Thread: the test's.
void setEventLoop(EventLoop loop);
/// Calls the function of the same name, if there is a loop. Thread: the test's.
void beginLaunch();
void endLaunch();

/// Sets the clock to the time at which each recorder begins.
void restartClock() noexcept;

}  // namespace kelvo::context
