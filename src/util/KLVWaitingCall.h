#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "util/KLVCallJournal.h"
#include "util/KLVHostLimits.h"
#include "util/KLVLedger.h"

namespace kelvo {

/// A host call on its way into the store: its task, its event and its write carry one copy each. The call counts as
/// waiting while a copy lives. The last copy finishes the call's entry in the journal.
///
/// A call is recorded on the caller's thread, before the call is handed over. Until the journal is open, the ticket
/// keeps the record; `openJournal` then writes all of them in their order. Thread-safe.
class KLVWaitingCall {
 public:
  KLVWaitingCall() = default;  ///< of no call
  KLVWaitingCall(const KLVWaitingCall& other) noexcept : state_(other.state_) {
    if (state_ != nullptr) state_->copies.fetch_add(1, std::memory_order_relaxed);
  }
  KLVWaitingCall(KLVWaitingCall&& other) noexcept : state_(std::exchange(other.state_, nullptr)) {}
  KLVWaitingCall& operator=(KLVWaitingCall other) noexcept {
    std::swap(state_, other.state_);
    return *this;
  }
  ~KLVWaitingCall() {
    if (state_ != nullptr && state_->copies.fetch_sub(1, std::memory_order_acq_rel) == 1) end(state_);
  }

  /// Returns a call that counts. Returns one that does not count if `Options::maxWaitingCalls` calls wait: the caller
  /// drops the call. A WARN line follows within a second, one for all that are refused in it. If the call `isEvent`,
  /// the ledger counts it as refused.
  [[nodiscard]] static KLVWaitingCall admit(bool isEvent = true) noexcept;
  /// Returns a call for which there is no limit: a report.
  [[nodiscard]] static KLVWaitingCall uncounted() noexcept { return KLVWaitingCall(false, 0); }
  /// Returns the call of an entry that an earlier process has left in the journal.
  [[nodiscard]] static KLVWaitingCall ofEntry(std::uint64_t sequence) noexcept {
    return KLVWaitingCall(false, sequence);
  }
  [[nodiscard]] explicit operator bool() const noexcept { return state_ != nullptr; }

  /// Writes the call into the journal, or keeps a copy until it is open. Once for each call, before it is copied.
  void record(const KLVCallRecord& record) const noexcept;
  /// Returns the number of the call's entry; 0 if it has none, or none yet.
  [[nodiscard]] std::uint64_t sequence() const noexcept {
    return state_ != nullptr ? state_->sequence.load(std::memory_order_relaxed) : 0;
  }
  /// Returns whether an earlier process made the call. Its events count as logged by that process.
  [[nodiscard]] bool isOfEarlierProcess() const noexcept { return state_ != nullptr && state_->isOfEarlierProcess; }
  /// Finishes the entry: all effects of the call are stored.
  void finish() const noexcept;
  /// Leaves the entry to the next launch: the effects could not be stored.
  void leaveToNextLaunch() const noexcept;

  // --- The journal of this process. At first, records are kept.
  /// Writes the records of all calls that still wait, and from now on writes records at once.
  static void openJournal(KLVCallJournal& journal) EXCLUDES(mutex_);
  /// Keeps later records until `openJournal`: an erasure begins.
  static void suspendJournal() EXCLUDES(mutex_);
  /// Forgets the records, and ignores later ones until `suspendJournal`: there is no journal.
  static void closeJournal() EXCLUDES(mutex_);

 private:
  enum class Phase : std::uint8_t { keeps, writes, ignores };
  struct Kept;
  struct End;
  struct State {
    State(bool itCounts, std::uint64_t entry) noexcept
        : counts(itCounts), isOfEarlierProcess(entry != 0), sequence(entry) {}
    std::atomic<std::uint32_t> copies{1};
    const bool counts;
    const bool isOfEarlierProcess;
    std::atomic<std::uint64_t> sequence;
    std::atomic<Kept*> kept{nullptr};  ///< the record until the journal is open
  };

  KLVWaitingCall(bool counts, std::uint64_t sequence) noexcept;
  static void end(State* state) noexcept;
  static void refuse(bool isEvent) noexcept;
  static void write(State& state, const KLVCallRecord& record, KLVCallJournal& journal) noexcept;
  static void forget(State& state) noexcept EXCLUDES(mutex_);
  static void dropKept() REQUIRES(mutex_);

  static std::atomic<std::size_t> waiting_;
  static std::atomic<Phase> phase_;
  static std::atomic<KLVCallJournal*> journal_;
  static Mutex mutex_;
  static Kept* first_ GUARDED_BY(mutex_);  ///< the kept records, in the order of their calls
  static Kept* last_ GUARDED_BY(mutex_);

  State* state_ = nullptr;
};

using KLVWaitingCalls = std::vector<KLVWaitingCall>;

}  // namespace kelvo
