#include "platform/Thread.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>

#include <atomic>
#include <exception>
#include <string>
#include <system_error>
#include <thread>

#include "platform/Problem.h"
#include "platform/ProcessWide.h"

namespace kelvo {
namespace {

std::atomic<bool> forked{false};
[[maybe_unused]] const int forkHandler = pthread_atfork(nullptr, nullptr, [] { forked.store(true); });

constinit std::atomic<bool> areHeld{false};
[[maybe_unused]] const ResetAtEnd threadsAreReset([] { allowThreads(); });

thread_local bool isOurs = false;

constexpr std::size_t kLongestName = 15;  // the kernel refuses longer ones

/// Gives the calling thread the signal mask that a new thread must inherit. The destructor restores the former mask.
class InheritedSignalMask {
 public:
  InheritedSignalMask() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) sigdelset(&blocked, fault);
    pthread_sigmask(SIG_SETMASK, &blocked, &before_);
  }
  InheritedSignalMask(const InheritedSignalMask&) = delete;
  InheritedSignalMask& operator=(const InheritedSignalMask&) = delete;
  ~InheritedSignalMask() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

/// Gives the calling thread the policy SCHED_BATCH: when it wakes up, it waits for a free processor, or for the end of
/// another thread's time slice. Otherwise the kernel may stop a thread of the host in the middle of a call, because the
/// call has just woken this thread. Changes nothing if the thread has inherited a policy other than the default, or if
/// the process is under a seccomp filter: common filters end a process that sets a policy. A refusal changes nothing.
void yieldToHost() {
  if (prctl(PR_GET_SECCOMP) != 0) return;
  sched_param parameters{};
  int policy = 0;
  if (pthread_getschedparam(pthread_self(), &policy, &parameters) != 0 || policy != SCHED_OTHER) return;
  pthread_setschedparam(pthread_self(), SCHED_BATCH, &parameters);
}

void runThread(const std::string& name, const std::function<void()>& body) {
  isOurs = true;
  pthread_setname_np(pthread_self(), name.c_str());
  yieldToHost();
  try {
    body();
  } catch (const std::exception& exception) {
    reportProblem("Thread", name + " ended by an exception: " + exception.what());
  } catch (...) {
    reportProblem("Thread", name + " ended by an unknown exception");
  }
}

}  // namespace

bool startThread(const char* name, std::function<void()> body, [[maybe_unused]] std::function<void()> wake) {
  if (inForkedChild() || threadsMustEnd()) return false;
  std::string shortName = std::string(name).substr(0, kLongestName);
  try {
    const InheritedSignalMask mask;
    std::thread thread([ownName = shortName, ownBody = std::move(body)] { runThread(ownName, ownBody); });
    // The thread sets its name, too. Set here, the name is visible as soon as this function returns.
    pthread_setname_np(thread.native_handle(), shortName.c_str());
#ifdef KELVO_TESTING
    context::add(std::move(thread), std::move(wake));
#else
    thread.detach();
#endif
    return true;
  } catch (const std::system_error& error) {
    reportProblem("Thread", shortName + " could not be started: " + error.what());
    return false;
  }
}

bool inForkedChild() noexcept {
  return forked.load(std::memory_order_relaxed);
}

#ifdef KELVO_TESTING
void useInForkedChild() noexcept {
  forked.store(false);
}
#endif

void holdThreads() noexcept {
  areHeld.store(true);
}

void allowThreads() noexcept {
  areHeld.store(false);
}

bool threadsAreHeld() noexcept {
  return areHeld.load();
}

bool onLibraryThread() noexcept {
  return isOurs;
}

}  // namespace kelvo
