#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "core/DeletionRequests.h"
#include "platform/DispatchQueue.h"
#include "platform/ThreadSafety.h"

namespace kelvo {

class KLVController;

/// Ends one generation of the controller's data and begins the next one, as often as the host or its user wants.
///
/// 1. `begin` closes the gate: nothing logged so far reaches a record, the database or a file any more. `HeldCalls`
///    keeps later host calls.
/// 2. `drain` notes the erasure on the disk, ends the generation's requests, and lets the work under way pass every
///    queue. Each component then drops what it has.
/// 3. `retireComponents` takes the records and components away, and closes the database.
/// 4. `finish` deletes the files, opens the gate, starts the library again and plays the kept calls.
///
/// Parts 2 to 4 and step B of the start-up run on the lifecycle queue, so no start-up runs beside them. No part blocks
/// on another queue. Thread: any, unless noted. The state is guarded by the controller's mutex.
class KLVErasure {
 public:
  explicit KLVErasure(KLVController& controller) : controller_(controller) {}

  /// Begins an erasure. One that is under way also serves this call, because nothing new is stored before its end.
  /// `collectsAfterwards` of the latest call counts.
  void begin(bool collectsAfterwards);
  /// Has the start-up erase the home first.
  void eraseAtStart() { erasesAtStart_ = true; }
  /// Calls `task` at once, or once the kept calls of the erasure under way are on their way.
  void whenEnded(std::function<void()> task);

  /// Returns the number of this generation, nullopt while an erasure is under way.
  [[nodiscard]] std::optional<std::uint64_t> generation();
  /// Runs `work` on the lifecycle queue, unless an erasure has begun after `generation` was returned.
  void perform(std::uint64_t generation, std::function<void()> work);

  /// Finishes an erasure that a kill has interrupted, or that the host has asked for before the start. Returns false if
  /// the home still has old data: nothing may be collected then. Blocks on the disk. Thread: the controller's queue, or
  /// the lifecycle queue.
  [[nodiscard]] bool finishInterrupted();
  /// Sends the pending deletion requests, once the start-up has ended: if the service holds one of them, the HTTP
  /// client may let the next request wait for it. The process must hold the home.
  void resumeDeletions();
  /// Does both, whatever may be collected, if this process gets the home. Returns at once. For a process that has found
  /// such work in the consent file and does not start.
  void resume();

 private:
  [[nodiscard]] bool takeHome();
  void drain();
  void retireComponents(const std::function<void()>& next);
  void finish(bool isErased);
  /// The caller holds the controller's mutex, which this header cannot name.
  void beginGeneration() NO_THREAD_SAFETY_ANALYSIS;

  KLVController& controller_;
  DeletionRequests deletions_;
  DispatchQueue queue_{"com.kelvo.serial.lifecycle"};
  // Guarded by the controller's mutex.
  bool isUnderWay_ = false;
  bool collectsAfterwards_ = true;
  std::uint64_t generation_ = 0;  ///< counts the erasures
  std::vector<std::function<void()>> waiters_;

  std::atomic<bool> erasesAtStart_{false};
};

}  // namespace kelvo
