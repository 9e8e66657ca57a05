#pragma once

#include <functional>

namespace kelvo {

/// Starts a detached thread of the library: named `name` (15 characters at most), every asynchronous signal
/// blocked, the faults (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS) left to the host's handlers.
/// Reports a problem and returns false when the system refuses a thread.
bool startThread(const char* name, std::function<void()> body);

/// True in a child that was forked from a process in which this library was loaded. There, no thread of the
/// library runs and any lock may be held for ever, so nothing may be touched.
bool inForkedChild() noexcept;

}  // namespace kelvo
