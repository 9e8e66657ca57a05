#pragma once

#include <functional>

#ifdef KELVO_TESTING
#include "platform/Context.h"
#endif

namespace kelvo {

/// Starts a detached thread with the name `name`, of which the first 15 characters count. The thread blocks every
/// asynchronous signal. The host's handlers keep the fault signals: SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP
/// and SIGSYS. The thread has the policy SCHED_BATCH, so that waking it never stops a thread of the host. It keeps the
/// policy of the calling thread if that is not the default, or if the process is under a seccomp filter. Reports a
/// problem and returns false if the system refuses a thread. Returns false in a forked child.
///
/// In the build for tests, the thread belongs to the context. The end of the context calls `wake`: `body` must then see
/// that `threadsMustEnd`, and return.
bool startThread(const char* name, std::function<void()> body, std::function<void()> wake);

#ifdef KELVO_TESTING
[[nodiscard]] inline bool threadsMustEnd() noexcept {
  return context::isEnding();
}
/// Lets a forked child use the library. For a process that forked while the library had no thread.
void useInForkedChild() noexcept;
#else
[[nodiscard]] constexpr bool threadsMustEnd() noexcept {
  return false;
}
#endif

/// Returns whether this process was forked from a process that had loaded the library. In such a child, no thread of
/// the library runs and any lock may stay locked forever, so the library must not take a lock or start a thread.
bool inForkedChild() noexcept;

/// From now on the library needs no thread: log lines wait in memory, callbacks come on the caller's thread. The
/// process is in this state from the load until the library knows that the user has decided about consent, or that the
/// host does not require it. Programs without the load hooks never are. Thread: any.
void holdThreads() noexcept;
void allowThreads() noexcept;
[[nodiscard]] bool threadsAreHeld() noexcept;

/// Returns true on a thread that `startThread` has started.
bool onLibraryThread() noexcept;

}  // namespace kelvo
