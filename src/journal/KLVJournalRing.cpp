#include "journal/KLVJournalRing.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace kelvo {
namespace {

using EntryHeader = KLVJournalEntryHeader;
using State = KLVJournalState;

constexpr std::chrono::seconds kWaitForWriters(1);

std::byte* putText(std::byte* target, std::string_view text) noexcept {
  if (!text.empty()) std::memcpy(target, text.data(), text.size());
  return target + text.size();
}

}  // namespace

KLVJournalRing::KLVJournalRing(std::byte* memory, const KLVJournalFileHeader& header) noexcept
    : memory_(memory),
      slots_(header.slots),
      firstNumber_(header.firstNumber),
      epoch_(header.epoch),
      head_(header.firstNumber),
      tail_(header.firstNumber) {
  std::memcpy(memory_, &header, sizeof(header));
}

std::byte* KLVJournalRing::slotAt(std::uint64_t number) const noexcept {
  return memory_ + kJournalHeaderBytes + number % slots_ * kJournalSlotBytes;
}

std::atomic_ref<std::uint64_t> KLVJournalRing::wordAt(std::uint64_t number) const noexcept {
  return std::atomic_ref<std::uint64_t>(*reinterpret_cast<std::uint64_t*>(slotAt(number)));
}

/// Returns the number of slots of an entry that is complete and not freed yet.
std::uint64_t KLVJournalRing::slotsAt(std::uint64_t number) const noexcept {
  EntryHeader header;
  std::memcpy(&header, slotAt(number), sizeof(header));
  return EntryHeader::slotsFor(header.bytes);
}

std::optional<std::uint32_t> KLVJournalRing::contentSize(const KLVJournalCallView& call) noexcept {
  const std::size_t size =
      call.session.size() + (call.text ? call.text->size() : 0) + (call.info ? call.info->size() : 0);
  return size <= UINT32_MAX ? std::optional(static_cast<std::uint32_t>(size)) : std::nullopt;
}

std::uint64_t KLVJournalRing::write(const KLVJournalCallView& call, std::uint32_t size) noexcept {
  const std::uint64_t number = reserve(EntryHeader::slotsFor(size));
  if (number > 0) fill(number, size, call);
  return number;
}

/// Reserves slots without a break. Returns the first number, 0 if there is no room.
std::uint64_t KLVJournalRing::reserve(std::uint64_t slots) noexcept {
  std::uint64_t tail = tail_.load(std::memory_order_acquire);  // before the head, so that it is never above it
  std::uint64_t head = head_.load(std::memory_order_relaxed);
  for (;;) {
    if ((head & kClosed) != 0) return 0;
    const std::uint64_t untilEnd = slots_ - head % slots_;
    const std::uint64_t left = untilEnd < slots ? untilEnd : 0;
    if (head + left + slots - tail > slots_) {
      const std::uint64_t later = tail_.load(std::memory_order_acquire);
      if (later == tail) return 0;
      tail = later;
      head = head_.load(std::memory_order_relaxed);
    } else if (head_.compare_exchange_weak(head, head + left + slots, std::memory_order_relaxed)) {
      if (left > 0) skip(head, left);
      return head + left;
    }
  }
}

/// Marks reserved slots at the end of the memory as left out.
void KLVJournalRing::skip(std::uint64_t number, std::uint64_t slots) noexcept {
  EntryHeader header;
  header.bytes = static_cast<std::uint32_t>(slots * kJournalSlotBytes - sizeof(EntryHeader));
  std::byte* const slot = slotAt(number);
  std::memcpy(slot + sizeof(header.word), &header.checksum, sizeof(header) - sizeof(header.word));
  wordAt(number).store(EntryHeader::wordOf(number, State::skipped), std::memory_order_release);
}

/// Begins an entry. From here to its commit, a kill leaves a torn entry, which the reader counts. It must not find the
/// new bytes behind the finished word of an earlier lap.
void KLVJournalRing::reserveWord(std::uint64_t number) noexcept {
  wordAt(number).store(EntryHeader::wordOf(number, State::reserved), std::memory_order_relaxed);
  std::atomic_signal_fence(
      std::memory_order_seq_cst);  // a kill sees what was executed: only the compiler could reorder
}

void KLVJournalRing::fill(std::uint64_t number, std::uint32_t size, const KLVJournalCallView& call) noexcept {
  reserveWord(number);
  EntryHeader header;
  header.sequence = number;
  header.epoch = epoch_;
  header.time = std::chrono::duration_cast<std::chrono::nanoseconds>(call.time.time_since_epoch()).count();
  header.bytes = size;
  header.kind = static_cast<std::uint8_t>(call.kind);
  header.flags = call.flags;
  if (call.text) header.parts |= EntryHeader::kHasText;
  if (call.info) header.parts |= EntryHeader::kHasInfo;
  header.sessionBytes = static_cast<std::uint8_t>(call.session.size());
  header.textBytes = call.text ? static_cast<std::uint32_t>(call.text->size()) : 0;
  std::byte* const slot = slotAt(number);
  std::memcpy(slot + kJournalSummedFrom, &header.sequence, sizeof(header) - kJournalSummedFrom);
  std::byte* next = putText(slot + sizeof(header), call.session);
  if (call.text) next = putText(next, *call.text);
  if (call.info) putText(next, *call.info);
  const std::size_t summed = sizeof(header) - kJournalSummedFrom + size;
  const std::uint64_t sum = journalChecksum(slot + kJournalSummedFrom, summed) ^ EntryHeader::seal(number);
  std::memcpy(slot + offsetof(EntryHeader, checksum), &sum, sizeof(sum));
  wordAt(number).store(EntryHeader::wordOf(number, State::committed), std::memory_order_release);
}

bool KLVJournalRing::tailIs(State state) const noexcept {
  const std::uint64_t tail = tail_.load(std::memory_order_relaxed);
  if (tail == headNumber()) return false;
  return wordAt(tail).load(std::memory_order_acquire) == EntryHeader::wordOf(tail, state);
}

KLVJournalRing::Moved* KLVJournalRing::movedEntry(std::uint64_t sequence) noexcept {
  auto* const found =
      std::find_if(moved_.begin(), moved_.end(), [=](const Moved& one) { return one.sequence == sequence; });
  return found != moved_.end() ? found : nullptr;
}

/// Returns the number where an unfinished entry is now, 0 if there is no such entry.
std::uint64_t KLVJournalRing::placeOf(std::uint64_t sequence) noexcept {
  if (sequence == 0 || sequence >= headNumber()) return 0;
  if (sequence < tail_.load(std::memory_order_relaxed)) {  // finished, or moved
    const Moved* moved = movedEntry(sequence);
    return moved != nullptr ? moved->number : 0;
  }
  const bool isCommitted =
      wordAt(sequence).load(std::memory_order_acquire) == EntryHeader::wordOf(sequence, State::committed);
  return isCommitted ? sequence : 0;
}

void KLVJournalRing::finish(std::uint64_t sequence) noexcept {
  const Lock lock(mutex_);
  const std::uint64_t number = placeOf(sequence);
  if (number == 0) return;
  wordAt(number).store(EntryHeader::wordOf(number, State::finished), std::memory_order_release);
  if (number != sequence) *movedEntry(sequence) = {};
  freeSettled();
  // An entry that is half a ring older than one that is finished takes long. It must not stop the ring.
  while (number > tail_ + slots_ / 2 && moveTail()) freeSettled();
}

void KLVJournalRing::freeSettled() noexcept {
  while (tailIs(State::finished) || tailIs(State::skipped)) {
    tail_.store(tail_ + slotsAt(tail_), std::memory_order_release);
  }
}

/// Copies the unfinished entry at the tail to the head, under its own sequence number. Returns false if it is being
/// written, or if there is no room for it.
///
/// A kill leaves the entry once, or twice with the same number, which the reader takes for one.
bool KLVJournalRing::moveTail() noexcept {
  const std::uint64_t from = tail_.load(std::memory_order_relaxed);
  if (!tailIs(State::committed)) return false;
  EntryHeader header;
  std::memcpy(&header, slotAt(from), sizeof(header));
  Moved* moved = movedEntry(header.sequence);
  if (moved == nullptr) moved = movedEntry(0);
  const std::uint64_t to = moved != nullptr ? reserve(EntryHeader::slotsFor(header.bytes)) : 0;
  if (to == 0) return false;
  header.checksum ^= EntryHeader::seal(from) ^ EntryHeader::seal(to);
  reserveWord(to);
  std::memcpy(slotAt(to) + sizeof(header.word), &header.checksum, sizeof(header) - sizeof(header.word));
  std::memcpy(slotAt(to) + sizeof(header), slotAt(from) + sizeof(header), header.bytes);
  wordAt(to).store(EntryHeader::wordOf(to, State::committed), std::memory_order_release);
  wordAt(from).store(EntryHeader::wordOf(from, State::skipped), std::memory_order_release);
  *moved = {header.sequence, to};
  return true;
}

std::uint64_t KLVJournalRing::endOf(std::uint64_t sequence) noexcept {
  const Lock lock(mutex_);
  const std::uint64_t number = placeOf(sequence);
  return sequence + (number > 0 ? slotsAt(number) : 1);
}

void KLVJournalRing::addFreed(KLVSequenceSet& set) {
  const Lock lock(mutex_);
  KLVSequenceSet freed;
  freed.add(firstNumber_, tail_);
  for (const Moved& moved : moved_) {
    if (moved.sequence > 0) freed.remove(moved.sequence, moved.sequence + slotsAt(moved.number));
  }
  set.add(freed);
}

/// Waits until every entry is complete, which happens soon: a writer only copies.
void KLVJournalRing::waitForWriters() noexcept {
  const auto deadline = std::chrono::steady_clock::now() + kWaitForWriters;
  for (std::uint64_t number = tail_; number != headNumber(); number += slotsAt(number)) {
    for (;;) {
      const std::uint64_t word = wordAt(number).load(std::memory_order_acquire);
      if (EntryHeader::numberOf(word) == number && EntryHeader::stateOf(word) != State::reserved) break;
      if (std::chrono::steady_clock::now() > deadline) return;
      std::this_thread::yield();
    }
  }
}

void KLVJournalRing::erase() noexcept {
  close();
  const Lock lock(mutex_);
  waitForWriters();
  // First the epoch: from then on no entry counts, whenever a kill comes.
  KLVJournalFileHeader header;
  header.firstNumber = firstNumber_;
  header.slots = slots_;
  header.checksum = header.sum();
  std::memcpy(memory_, &header, sizeof(header));
  for (std::uint64_t offset = 0; offset < slots_ * kJournalSlotBytes; offset += sizeof(std::uint64_t)) {
    auto& word = *reinterpret_cast<std::uint64_t*>(memory_ + kJournalHeaderBytes + offset);
    std::atomic_ref<std::uint64_t>(word).store(0, std::memory_order_relaxed);
  }
  moved_ = {};
  tail_ = headNumber();
}

}  // namespace kelvo
