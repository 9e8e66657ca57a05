#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>

#include "platform/ThreadSafety.h"
#include "util/KLVLedger.h"

namespace kelvo {

/// Keeps the host's calls in memory, on the caller's thread, until the library may do their work. Thread-safe.
///
/// Before the start, every call is kept but the oldest reports: of these, the last 1,000 are kept, because a process
/// that never starts the library may report for years. While the user's decision about consent is awaited, the host's
/// limit applies to all calls, and the oldest call is dropped first. During an erasure, later calls are kept.
class HeldCalls {
 public:
  enum class Kind {
    other,        ///< attributes, ids, a token
    event,        ///< makes an event
    report,       ///< of activity or of a screen
    namedScreen,  ///< a report that no other report replaces
  };
  struct Held {
    Kind kind;
    std::function<void()> call;
    [[nodiscard]] bool isReport() const noexcept { return kind == Kind::report || kind == Kind::namedScreen; }
  };
  using Calls = std::list<Held>;
  static constexpr std::size_t kMostReports = 1000;

  /// Keeps `call`. Returns false, and leaves `call` alone, once `open` was called: one atomic load.
  [[nodiscard]] bool keep(Kind kind, std::function<void()>& call) EXCLUDES(mutex_);
  /// From now on, keeps the latest `mostCalls` calls only. Counts dropped events.
  void limit(std::size_t mostCalls) EXCLUDES(mutex_);
  /// Has `take` submit the kept calls. Later calls are not kept, so they follow them. `take` must not block.
  void open(const std::function<void(Calls&)>& take) EXCLUDES(mutex_);
  /// Keeps every later call again, without a limit, and out of the journal: for an erasure.
  void close() EXCLUDES(mutex_);
  /// Forgets the kept calls. Returns them, for the caller to destroy without a lock. The ledger counts the events under
  /// `fate`.
  [[nodiscard]] Calls clear(KLVLedgerEntry fate) EXCLUDES(mutex_);
  /// The same as `open` without `take`: drops the kept calls and counts their events.
  void drop() EXCLUDES(mutex_);

  [[nodiscard]] bool isHolding() const noexcept { return !isOpen_; }
  /// Returns the number of kept calls that make an event.
  [[nodiscard]] std::uint64_t events() const noexcept { return events_; }

 private:
  void trimReports(Calls& dropped) REQUIRES(mutex_);
  void trimToLimit(Calls& dropped) REQUIRES(mutex_);

  std::atomic<bool> isOpen_{false};
  std::atomic<std::uint64_t> events_{0};
  Mutex mutex_;  ///< `open` holds it, so that no later call overtakes the kept ones
  Calls calls_ GUARDED_BY(mutex_);
  std::optional<std::size_t> limit_ GUARDED_BY(mutex_);
  std::size_t reports_ GUARDED_BY(mutex_) = 0;  ///< calls of the kind `report`
  bool warnsOfLimit_ GUARDED_BY(mutex_) = true;
  bool warnsOfReports_ GUARDED_BY(mutex_) = true;
};

}  // namespace kelvo
