#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "journal/KLVJournalEntry.h"
#include "journal/KLVJournalFormat.h"
#include "journal/KLVSequenceSet.h"
#include "platform/ThreadSafety.h"

namespace kelvo {

/// A call on its way into the ring. Owns nothing.
struct KLVJournalCallView {
  KLVJournalKind kind{};
  std::uint8_t flags = 0;
  Date time{};
  std::string_view session{};  ///< up to 255 bytes
  std::optional<std::string_view> text{};
  std::optional<std::string_view> info{};  ///< in the form of `KLVCodedDictionary`
};

/// The entries of a journal in memory that is all zeros at first. KLVJournal.h describes the rules. Thread: any.
///
/// A writer reserves slots with one atomic operation on `head_`, fills them, and sets the commit word. It takes no
/// lock, and nobody else touches its slots. `tail_` is the first number in use: it passes finished entries. It stops at
/// a writer that has not committed yet; nobody waits for that writer, but the space behind it stays in use.
class KLVJournalRing {
 public:
  /// `memory` is the file, and begins at a page. Writes the header, whose first number is a multiple of its slots.
  KLVJournalRing(std::byte* memory, const KLVJournalFileHeader& header) noexcept;

  /// Returns the size of an entry's content in bytes, behind its header. Returns nullopt if a call cannot be written.
  [[nodiscard]] static std::optional<std::uint32_t> contentSize(const KLVJournalCallView& call) noexcept;
  /// Writes a call with this size. Returns its number, 0 if there is no room or `close` was called. Takes no lock.
  [[nodiscard]] std::uint64_t write(const KLVJournalCallView& call, std::uint32_t size) noexcept;

  void finish(std::uint64_t sequence) noexcept EXCLUDES(mutex_);
  [[nodiscard]] std::uint64_t endOf(std::uint64_t sequence) noexcept EXCLUDES(mutex_);
  void addFreed(KLVSequenceSet& set) EXCLUDES(mutex_);

  /// From now on, `write` returns 0.
  void close() noexcept { head_.fetch_or(kClosed); }
  [[nodiscard]] bool isOpen() const noexcept { return (head_.load(std::memory_order_relaxed) & kClosed) == 0; }
  /// Closes the ring, waits for writers, for a second at most, and overwrites everything with zeros.
  void erase() noexcept EXCLUDES(mutex_);

  [[nodiscard]] std::uint64_t slots() const noexcept { return slots_; }
  [[nodiscard]] std::uint64_t firstNumber() const noexcept { return firstNumber_; }
  /// Returns the next number. None at or above it is in use.
  [[nodiscard]] std::uint64_t headNumber() const noexcept { return head_.load() & ~kClosed; }

 private:
  static constexpr std::uint64_t kClosed = std::uint64_t{1} << 63U;
  static constexpr std::size_t kMostMoved = 64;

  /// An entry that has moved: its first number, and the one where it is now. 0: none.
  struct Moved {
    std::uint64_t sequence = 0;
    std::uint64_t number = 0;
  };

  [[nodiscard]] std::byte* slotAt(std::uint64_t number) const noexcept;
  [[nodiscard]] std::atomic_ref<std::uint64_t> wordAt(std::uint64_t number) const noexcept;
  /// Returns whether the entry at the tail is in this state.
  [[nodiscard]] bool tailIs(KLVJournalState state) const noexcept REQUIRES(mutex_);
  [[nodiscard]] std::uint64_t slotsAt(std::uint64_t number) const noexcept REQUIRES(mutex_);
  [[nodiscard]] Moved* movedEntry(std::uint64_t sequence) noexcept REQUIRES(mutex_);
  [[nodiscard]] std::uint64_t placeOf(std::uint64_t sequence) noexcept REQUIRES(mutex_);

  [[nodiscard]] std::uint64_t reserve(std::uint64_t slots) noexcept;
  void skip(std::uint64_t number, std::uint64_t slots) noexcept;
  void reserveWord(std::uint64_t number) noexcept;
  void fill(std::uint64_t number, std::uint32_t size, const KLVJournalCallView& call) noexcept;
  void freeSettled() noexcept REQUIRES(mutex_);
  [[nodiscard]] bool moveTail() noexcept REQUIRES(mutex_);
  void waitForWriters() noexcept REQUIRES(mutex_);

  std::byte* const memory_;
  const std::uint64_t slots_;
  const std::uint64_t firstNumber_;
  const std::uint64_t epoch_;
  alignas(kJournalSlotBytes) std::atomic<std::uint64_t> head_;  ///< the next number, and `kClosed`
  alignas(kJournalSlotBytes) std::atomic<std::uint64_t> tail_;  ///< changed under the mutex
  Mutex mutex_;                                                 ///< for all but writers
  std::array<Moved, kMostMoved> moved_ GUARDED_BY(mutex_){};
};

}  // namespace kelvo
