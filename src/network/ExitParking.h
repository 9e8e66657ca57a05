#pragma once

#include <atomic>
#include <condition_variable>
#include <vector>

#include "platform/ThreadSafety.h"

namespace kelvo {

/// Stops the network threads when the process exits, before OpenSSL frees its data: a thread that used OpenSSL after
/// that would crash.
///
/// A network thread calls `enter` when it starts and `leave` when it ends. In between, it calls `parkIfExiting` each
/// time it wakes up. Thread-safe.
class ExitParking {
 public:
  /// A thread that uses curl.
  class NetworkThread {
   public:
    /// Makes the thread return from its wait for the network. Called on the exiting thread, with the parking's mutex
    /// held.
    virtual void wake() = 0;

   protected:
    ~NetworkThread() = default;  // never deleted through this type
  };

  /// The parking of the process. Never destroyed.
  static ExitParking& shared();

  /// Parks all network threads permanently. Blocks until they are parked, for half a second at most. Does nothing in a
  /// forked child. May be called several times.
  static void parkAtExit();

  /// Called on `thread` when it starts and ends.
  void enter(NetworkThread& thread) EXCLUDES(mutex_);
  void leave(NetworkThread& thread) EXCLUDES(mutex_);

  /// Returns true once the process exits: from then on, no request starts.
  [[nodiscard]] bool isExiting() const noexcept { return isExiting_.load(); }
  /// Does not return if the process exits. Called on `thread`.
  void parkIfExiting(NetworkThread& thread) EXCLUDES(mutex_);

 private:
  void parkAll() EXCLUDES(mutex_);

  std::atomic<bool> isExiting_{false};
  Mutex mutex_;
  std::condition_variable left_;
  std::vector<NetworkThread*> inside_ GUARDED_BY(mutex_);
};

}  // namespace kelvo
