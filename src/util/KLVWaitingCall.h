#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/ThreadSafety.h"
#include "util/KLVCallJournal.h"
#include "util/KLVHostLimits.h"
#include "util/KLVLedger.h"

namespace kelvo {

/// A host call on its way into the store: its task, its event and its write carry one copy each. The call counts as
/// waiting while a copy lives. The last copy finishes the call's entry in the journal.
///
/// The copies share the call itself, in a form that takes a fifth of its attributes' memory: thousands may wait. It is
/// recorded on the caller's thread, before the call is handed over; until the journal is open, `openJournal` does so
/// later, for all of them in their order. Thread-safe.
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

  /// Returns the ticket of a call, which it records. Returns one of no call if `Options::maxWaitingCalls` calls wait or
  /// memory is short: the caller drops the call. A WARN line follows within a second, one for all that are refused in
  /// it. If the call `isEvent`, the ledger counts it as refused.
  [[nodiscard]] static KLVWaitingCall admit(const KLVCallRecord& record, bool isEvent = true) noexcept;
  /// The same for a call without a limit: a report. Returns one of no call only if memory is short.
  [[nodiscard]] static KLVWaitingCall uncounted(const KLVCallRecord& record) noexcept;
  /// Returns the call of an entry that an earlier process has left in the journal.
  [[nodiscard]] static KLVWaitingCall ofEntry(std::uint64_t sequence) noexcept;
  [[nodiscard]] explicit operator bool() const noexcept { return state_ != nullptr; }

  /// Return what the call reported: of no call and of an earlier process, nothing.
  [[nodiscard]] Date time() const noexcept;
  [[nodiscard]] std::optional<std::string> text() const;
  [[nodiscard]] Dictionary attributes() const;

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
  struct End;
  /// The call itself. The bytes of the text and of the attributes follow.
  struct State {
    std::atomic<std::uint32_t> copies{1};
    std::uint32_t textBytes = 0;
    std::uint32_t infoBytes = 0;
    std::uint8_t kind = 0;
    std::uint8_t flags = 0;
    bool counts : 1 = false;
    bool isOfEarlierProcess : 1 = false;
    bool hasText : 1 = false;
    bool hasInfo : 1 = false;
    std::atomic<bool> isKept{false};  ///< in the list of calls that wait for the journal
    std::atomic<std::uint64_t> sequence{0};
    Date time{};
    State* before = nullptr;  ///< in that list
    State* after = nullptr;

    /// Returns nullptr if memory is short, or if the attributes have no form.
    [[nodiscard]] static State* make(const KLVCallRecord& record) noexcept;
    static void operator delete(void* memory) noexcept { ::operator delete(memory); }
    [[nodiscard]] KLVCodedCall call() const noexcept;
  };

  explicit KLVWaitingCall(State* state) noexcept : state_(state) {}
  static void end(State* state) noexcept;
  static void refuse(bool isEvent) noexcept;
  void record(const KLVCallRecord& record) const noexcept EXCLUDES(mutex_);
  static void write(State& state, KLVCallJournal& journal) noexcept;
  static void keep(State& state) noexcept REQUIRES(mutex_);
  static void forget(State& state) noexcept EXCLUDES(mutex_);
  static void dropKept() REQUIRES(mutex_);

  static std::atomic<std::size_t> waiting_;
  static std::atomic<Phase> phase_;
  static std::atomic<KLVCallJournal*> journal_;
  static Mutex mutex_;
  static State* first_ GUARDED_BY(mutex_);  ///< the calls that wait for the journal, in their order
  static State* last_ GUARDED_BY(mutex_);

  State* state_ = nullptr;
};

using KLVWaitingCalls = std::vector<KLVWaitingCall>;

}  // namespace kelvo
