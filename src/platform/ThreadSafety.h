#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

/// Clang's thread-safety annotations, and the mutex and lock that carry them. Other compilers ignore the annotations.
///
/// `scripts/check-thread-safety` compiles with `-Wthread-safety -Werror`: an access to a GUARDED_BY field without its
/// mutex is an error there.
#if defined(__clang__)
#define KELVO_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KELVO_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(name) KELVO_THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY KELVO_THREAD_ANNOTATION(scoped_lockable)
/// On a field: read and written only with the mutex held, or on the queue.
#define GUARDED_BY(mutex) KELVO_THREAD_ANNOTATION(guarded_by(mutex))
/// On a pointer: the object that it points to is used only with the mutex held.
#define PT_GUARDED_BY(mutex) KELVO_THREAD_ANNOTATION(pt_guarded_by(mutex))
/// On a function or a lambda: the caller holds the mutex.
#define REQUIRES(...) KELVO_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
/// On a function: the caller must not hold the mutex, because the function takes it.
#define EXCLUDES(...) KELVO_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) KELVO_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) KELVO_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) KELVO_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
/// On a function that checks at run time that the calling thread holds the capability.
#define ASSERT_CAPABILITY(x) KELVO_THREAD_ANNOTATION(assert_capability(x))
#define RETURN_CAPABILITY(x) KELVO_THREAD_ANNOTATION(lock_returned(x))
/// Switches the analysis off for one function. The comment beside it says why.
#define NO_THREAD_SAFETY_ANALYSIS KELVO_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace kelvo {

/// A `std::mutex` that the thread-safety analysis knows.
class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  [[nodiscard]] bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  friend class Lock;
  std::mutex mutex_;
};

/// Holds a `Mutex` while it lives. It can release the mutex for a while, and wait on a condition variable.
///
/// A wait may end without a notification, so callers check their condition in a loop:
/// `while (!ready_) lock.wait(changed_);`
class SCOPED_CAPABILITY Lock {
 public:
  explicit Lock(Mutex& mutex) ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  ~Lock() RELEASE() {}

  void lock() ACQUIRE() { lock_.lock(); }
  void unlock() RELEASE() { lock_.unlock(); }

  /// Releases the mutex, blocks until `condition` is notified, and takes the mutex again.
  void wait(std::condition_variable& condition) { condition.wait(lock_); }

  /// As `wait`, but blocks until `deadline` at most. Returns false once the deadline has passed.
  template <class Clock, class Duration>
  [[nodiscard]] bool waitUntil(std::condition_variable& condition,
                               const std::chrono::time_point<Clock, Duration>& deadline) {
    return condition.wait_until(lock_, deadline) == std::cv_status::no_timeout;
  }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace kelvo
