#include "util/KLVWaitingCall.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <string_view>

#include "platform/DispatchQueue.h"
#include "platform/Problem.h"
#include "platform/ProcessWide.h"
#include "util/KLVDictionaryCoding.h"
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

std::atomic<std::size_t> KLVWaitingCall::waiting_{0};
std::atomic<KLVWaitingCall::Phase> KLVWaitingCall::phase_{Phase::keeps};
std::atomic<KLVCallJournal*> KLVWaitingCall::journal_{nullptr};
Mutex KLVWaitingCall::mutex_;
KLVWaitingCall::State* KLVWaitingCall::first_ = nullptr;
KLVWaitingCall::State* KLVWaitingCall::last_ = nullptr;

/// When a context has ended, no ticket is left.
struct KLVWaitingCall::End {
  static const ResetAtEnd reset;
};
const ResetAtEnd KLVWaitingCall::End::reset([] {
  refused = unrecorded = waiting_ = 0;
  journal_ = nullptr;
  phase_ = Phase::keeps;
});

KLVWaitingCall::State* KLVWaitingCall::State::make(const KLVCallRecord& record) noexcept {
  const KLVCodedDictionary info(record.info);
  const std::string_view text = record.text.value_or("");
  if (!info.size() || std::max(text.size(), *info.size()) > UINT32_MAX) return nullptr;
  void* const memory = ::operator new(sizeof(State) + text.size() + *info.size(), std::nothrow);
  if (memory == nullptr) return nullptr;
  auto* const state = ::new (memory) State;
  state->kind = record.kind;
  state->flags = record.flags;
  state->time = record.time;
  state->hasText = record.text.has_value();
  state->textBytes = static_cast<std::uint32_t>(text.size());
  state->hasInfo = record.info != nullptr;
  state->infoBytes = static_cast<std::uint32_t>(*info.size());
  auto* const bytes = reinterpret_cast<std::byte*>(state + 1);
  if (!text.empty()) std::memcpy(bytes, text.data(), text.size());
  info.copyTo(bytes + text.size());
  return state;
}

KLVCodedCall KLVWaitingCall::State::call() const noexcept {
  const auto* const bytes = reinterpret_cast<const char*>(this + 1);
  KLVCodedCall call{kind, flags, time};
  if (hasText) call.text.emplace(bytes, textBytes);
  if (hasInfo) call.info.emplace(bytes + textBytes, infoBytes);
  return call;
}

KLVWaitingCall KLVWaitingCall::admit(const KLVCallRecord& record, bool isEvent) noexcept {
  KLVWaitingCall call;
  if (waiting_.fetch_add(1, std::memory_order_relaxed) < KLVHostLimits::currentMostWaitingCalls()) {
    call = KLVWaitingCall(State::make(record));
  }
  if (!call) {
    refuse(isEvent);
    return call;
  }
  call.state_->counts = true;
  call.record(record);
  return call;
}

KLVWaitingCall KLVWaitingCall::uncounted(const KLVCallRecord& record) noexcept {
  KLVWaitingCall call(State::make(record));
  if (call) call.record(record);
  return call;
}

KLVWaitingCall KLVWaitingCall::ofEntry(std::uint64_t sequence) noexcept {
  KLVWaitingCall call(State::make({}));
  if (call) {
    call.state_->isOfEarlierProcess = true;
    call.state_->sequence = sequence;
  }
  return call;
}

Date KLVWaitingCall::time() const noexcept {
  return state_ != nullptr ? state_->time : Date();
}

std::optional<std::string> KLVWaitingCall::text() const {
  const auto text = state_ != nullptr ? state_->call().text : std::nullopt;
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

Dictionary KLVWaitingCall::attributes() const {
  const auto info = state_ != nullptr ? state_->call().info : std::nullopt;
  return info ? decodeDictionary(*info).value_or(Dictionary()) : Dictionary();
}

void KLVWaitingCall::refuse(bool isEvent) noexcept {
  waiting_.fetch_sub(1, std::memory_order_relaxed);
  if (isEvent) KLVLedger::shared().refuse(KLVLedgerEntry::refusedStorm);
  count(refused, [](std::size_t calls) {
    KLV_WARN("{} calls are refused: {} others wait to be stored", calls, KLVHostLimits::currentMostWaitingCalls());
  });
}

void KLVWaitingCall::write(State& state, KLVCallJournal& journal) noexcept {
  const std::uint64_t sequence = journal.write(state.call());
  state.sequence.store(sequence, std::memory_order_relaxed);
  if (sequence != 0) return;
  count(unrecorded, [](std::size_t calls) {
    KLV_WARN("{} calls are not in the journal, which is full or too small: a kill would lose them", calls);
  });
}

/// Writes the call into the journal, or has it wait until the journal is open.
void KLVWaitingCall::record(const KLVCallRecord& record) const noexcept {
  if (record.kind == 0) return;
  observer::called(record);
  const Phase phase = phase_.load(std::memory_order_acquire);
  if (phase == Phase::ignores) return;
  if (phase == Phase::writes) return write(*state_, *journal_.load(std::memory_order_relaxed));
  const Lock lock(mutex_);
  if (phase_ == Phase::writes) return write(*state_, *journal_);
  if (phase_ == Phase::keeps) keep(*state_);
}

void KLVWaitingCall::end(State* state) noexcept {
  if (state->counts) waiting_.fetch_sub(1, std::memory_order_relaxed);
  if (state->isKept.load(std::memory_order_acquire)) forget(*state);
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

void KLVWaitingCall::keep(State& state) noexcept {
  state.before = last_;
  (last_ != nullptr ? last_->after : first_) = &state;
  last_ = &state;
  state.isKept = true;
}

/// Has a call that ends wait no longer, unless the journal has it meanwhile.
void KLVWaitingCall::forget(State& state) noexcept {
  const Lock lock(mutex_);
  if (!state.isKept) return;
  (state.before != nullptr ? state.before->after : first_) = state.after;
  (state.after != nullptr ? state.after->before : last_) = state.before;
}

void KLVWaitingCall::dropKept() {
  while (first_ != nullptr) {
    State* const state = std::exchange(first_, first_->after);
    state->isKept.store(false, std::memory_order_release);  // from now on, its last copy may delete it
  }
  last_ = nullptr;
}

void KLVWaitingCall::openJournal(KLVCallJournal& journal) {
  const Lock lock(mutex_);
  journal_ = &journal;
  for (State* state = first_; state != nullptr; state = state->after) write(*state, journal);
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
