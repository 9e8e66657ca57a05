#include "util/KLVWaitingCall.h"

#include <chrono>
#include <exception>
#include <new>

#include "platform/DispatchQueue.h"
#include "platform/Problem.h"
#include "platform/ProcessWide.h"
#include "util/KLVLogger.h"
#include "util/KLVObserver.h"

namespace kelvo {
namespace {

constexpr std::chrono::seconds kBetweenLines(1);

/// Calls since the last line of their kind.
std::atomic<std::size_t> refused{0};
std::atomic<std::size_t> unrecorded{0};

/// Counts a call, and has `line` written within a second, once for all calls until then.
void count(std::atomic<std::size_t>& calls, void (*line)(std::size_t calls)) noexcept {
  if (calls.fetch_add(1) > 0) return;
  try {
    DispatchQueue::global().after(kBetweenLines, [&calls, line] { line(calls.exchange(0)); });
  } catch (const std::exception& error) {
    calls.store(0);
    reportProblem(__PRETTY_FUNCTION__, error.what());
  }
}

}  // namespace

/// A record that waits for the journal, in the list of all of them.
struct KLVWaitingCall::Kept {
  Kept(State& its, const KLVCallRecord& original) : state(&its), text(original.text.value_or("")), record(original) {
    if (record.text) record.text = text;
    if (record.info != nullptr) record.info = &info.emplace(*record.info);
  }
  State* state;
  std::string text;
  std::optional<Dictionary> info{};
  KLVCallRecord record;  // of these two
  Kept* before = nullptr;
  Kept* after = nullptr;
};

std::atomic<std::size_t> KLVWaitingCall::waiting_{0};
std::atomic<KLVWaitingCall::Phase> KLVWaitingCall::phase_{Phase::keeps};
std::atomic<KLVCallJournal*> KLVWaitingCall::journal_{nullptr};
Mutex KLVWaitingCall::mutex_;
KLVWaitingCall::Kept* KLVWaitingCall::first_ = nullptr;
KLVWaitingCall::Kept* KLVWaitingCall::last_ = nullptr;

/// When a context has ended, no ticket is left.
struct KLVWaitingCall::End {
  static const ResetAtEnd reset;
};
const ResetAtEnd KLVWaitingCall::End::reset([] {
  refused = unrecorded = waiting_ = 0;
  journal_ = nullptr;
  phase_ = Phase::keeps;
});

KLVWaitingCall::KLVWaitingCall(bool counts, std::uint64_t sequence) noexcept
    : state_(new (std::nothrow) State(counts, sequence)) {}

KLVWaitingCall KLVWaitingCall::admit(bool isEvent) noexcept {
  KLVWaitingCall call;
  if (waiting_.fetch_add(1, std::memory_order_relaxed) < KLVHostLimits::currentMostWaitingCalls()) {
    call = KLVWaitingCall(true, 0);
  }
  if (!call) refuse(isEvent);
  return call;
}

void KLVWaitingCall::refuse(bool isEvent) noexcept {
  waiting_.fetch_sub(1, std::memory_order_relaxed);
  if (isEvent) KLVLedger::shared().refuse(KLVLedgerEntry::refusedStorm);
  count(refused, [](std::size_t calls) {
    KLV_WARN("{} calls are refused: {} others wait to be stored", calls, KLVHostLimits::currentMostWaitingCalls());
  });
}

void KLVWaitingCall::write(State& state, const KLVCallRecord& record, KLVCallJournal& journal) noexcept {
  const std::uint64_t sequence = journal.write(record);
  state.sequence.store(sequence, std::memory_order_relaxed);
  if (sequence != 0) return;
  count(unrecorded, [](std::size_t calls) {
    KLV_WARN("{} calls are not in the journal, which is full or too small: a kill would lose them", calls);
  });
}

void KLVWaitingCall::record(const KLVCallRecord& record) const noexcept {
  if (state_ == nullptr) return;
  observer::called(record);
  const Phase phase = phase_.load(std::memory_order_acquire);
  if (phase == Phase::ignores) return;
  if (phase == Phase::writes) return write(*state_, record, *journal_.load(std::memory_order_relaxed));
  const Lock lock(mutex_);
  if (phase_ == Phase::writes) return write(*state_, record, *journal_);
  if (phase_ == Phase::ignores) return;
  Kept* kept = nullptr;
  try {
    kept = new Kept(*state_, record);
  } catch (const std::bad_alloc&) {
    return;  // as with a full journal
  }
  kept->before = last_;
  (last_ != nullptr ? last_->after : first_) = kept;
  last_ = kept;
  state_->kept = kept;
}

void KLVWaitingCall::end(State* state) noexcept {
  if (state->counts) waiting_.fetch_sub(1, std::memory_order_relaxed);
  if (state->kept.load(std::memory_order_acquire) != nullptr) forget(*state);
  if (const std::uint64_t sequence = state->sequence.load(std::memory_order_relaxed); sequence != 0) {
    if (auto* journal = journal_.load(std::memory_order_acquire)) journal->finish(sequence);
  }
  delete state;
}

void KLVWaitingCall::finish() const noexcept {
  if (state_ == nullptr) return;
  const std::uint64_t sequence = state_->sequence.exchange(0, std::memory_order_relaxed);
  auto* const journal = journal_.load(std::memory_order_acquire);
  if (sequence != 0 && journal != nullptr) journal->finish(sequence);
}

void KLVWaitingCall::leaveToNextLaunch() const noexcept {
  if (state_ != nullptr) state_->sequence.store(0, std::memory_order_relaxed);
}

/// Removes the record of a call that ends, unless the journal has it meanwhile.
void KLVWaitingCall::forget(State& state) noexcept {
  const Lock lock(mutex_);
  Kept* const kept = state.kept;
  if (kept == nullptr) return;
  (kept->before != nullptr ? kept->before->after : first_) = kept->after;
  (kept->after != nullptr ? kept->after->before : last_) = kept->before;
  delete kept;
}

void KLVWaitingCall::dropKept() {
  while (first_ != nullptr) {
    first_->state->kept = nullptr;
    delete std::exchange(first_, first_->after);
  }
  last_ = nullptr;
}

void KLVWaitingCall::openJournal(KLVCallJournal& journal) {
  const Lock lock(mutex_);
  journal_ = &journal;
  for (const Kept* kept = first_; kept != nullptr; kept = kept->after) {
    write(*kept->state, kept->record, journal);
  }
  dropKept();
  phase_ = Phase::writes;
}

void KLVWaitingCall::suspendJournal() {
  const Lock lock(mutex_);
  phase_ = Phase::keeps;
}

void KLVWaitingCall::closeJournal() {
  const Lock lock(mutex_);
  phase_ = Phase::ignores;
  dropKept();
}

}  // namespace kelvo
