#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "kelvo/KelvoSDK.h"
#include "platform/DispatchQueue.h"
#include "platform/ThreadSafety.h"

namespace kelvo {

/// Keeps the status of the library and tells it to the host's callbacks (`KelvoSDK::onReady`). Thread-safe.
class Readiness {
 public:
  using State = KelvoSDK::State;
  using Status = KelvoSDK::Status;
  using Callback = std::function<void(const Status&)>;

  static Readiness& shared();

  // While the library may have no thread (`threadsAreHeld`), both call the callbacks on the caller's thread.

  /// Calls `callback` on a queue with the status, if it is known, and with each later one. Ignores an empty function.
  void add(Callback callback) EXCLUDES(mutex_);
  /// Does nothing if the state stays the same.
  void set(State state, std::string reason) EXCLUDES(mutex_);

 private:
  using Callbacks = std::vector<std::shared_ptr<const Callback>>;
  void deliver(Callbacks callbacks, Status status) REQUIRES(mutex_);

  Mutex mutex_;  ///< also orders the deliveries; never held while a callback runs
  std::optional<Status> status_ GUARDED_BY(mutex_);
  Callbacks callbacks_ GUARDED_BY(mutex_);
  DispatchQueue queue_{"com.kelvo.serial.readiness"};
};

}  // namespace kelvo
