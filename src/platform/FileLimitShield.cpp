#include "platform/FileLimitShield.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "platform/Thread.h"

namespace kelvo {
namespace {

sigset_t limitSignal() noexcept {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGXFSZ);
  return signals;
}

bool isPending() noexcept {
  sigset_t pending;
  return sigpending(&pending) == 0 && sigismember(&pending, SIGXFSZ) == 1;
}

}  // namespace

FileLimitShield::FileLimitShield() noexcept {
  if (onLibraryThread()) return;
  const sigset_t signals = limitSignal();
  sigset_t before;
  isActive_ = pthread_sigmask(SIG_BLOCK, &signals, &before) == 0;
  if (!isActive_) return;
  wasBlocked_ = sigismember(&before, SIGXFSZ) == 1;
  wasPending_ = wasBlocked_ && isPending();
}

FileLimitShield::~FileLimitShield() {
  if (!isActive_) return;
  const int keptError = errno;
  const sigset_t signals = limitSignal();
  if (!wasPending_ && isPending()) {
    const timespec atOnce{};
    siginfo_t info{};
    // Takes this thread's own signal before one of the whole process. The kernel names this process as the sender of
    // the former. A signal of another process is none of ours: it is queued again, unchanged.
    const bool taken = sigtimedwait(&signals, &info, &atOnce) == SIGXFSZ;
    if (taken && info.si_pid != ::getpid()) ::syscall(SYS_rt_sigqueueinfo, ::getpid(), SIGXFSZ, &info);
  }
  if (!wasBlocked_) pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  errno = keptError;
}

}  // namespace kelvo
