#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace kelvo {

// The journal's file, in the byte order of the machine: a header of one page, then slots of 64 bytes. The file in the
// Library directory may end after its header: then it only tells that a file in the runtime directory counts. An entry
// begins at a slot and takes as many as it needs, without a break. Slot i holds the numbers n with n % slots == i.

inline constexpr std::size_t kJournalSlotBytes = 64;
inline constexpr std::size_t kJournalHeaderBytes = 4096;  // a page

/// No number is larger. A number and a state share a word.
inline constexpr std::uint64_t kJournalLargestNumber = std::uint64_t{1} << 61;

inline constexpr std::uint64_t kJournalFactor = 0x9E3779B97F4A7C15U;

/// Returns a checksum of `bytes`, which finds damage; it is no protection against intent.
inline std::uint64_t journalChecksum(const void* bytes, std::size_t size) noexcept {
  const auto* next = static_cast<const std::byte*>(bytes);
  std::uint64_t sum = size * kJournalFactor;
  const auto mix = [&](std::size_t count) {
    std::uint64_t word = 0;
    std::memcpy(&word, next, count);
    sum = (sum ^ word) * kJournalFactor;
    sum ^= sum >> 32U;
  };
  for (; size >= sizeof(std::uint64_t); size -= sizeof(std::uint64_t), next += sizeof(std::uint64_t)) {
    mix(sizeof(std::uint64_t));
  }
  if (size > 0) mix(size);
  return sum;
}

/// The first bytes of the file.
struct KLVJournalFileHeader {
  static constexpr std::uint64_t kMagic = 0x314C4E524A564C4BU;  // "KLVJRNL1"

  std::uint64_t magic = kMagic;
  std::uint64_t id = 0;           ///< random, of this file
  std::uint64_t absorbedId = 0;   ///< the file in the other place whose entries were copied into this one; 0: none
  std::uint64_t home = 0;         ///< the mark of the home, random: an erasure ends it
  std::uint64_t epoch = 0;        ///< 0 after an erasure: no entry counts
  std::uint64_t firstNumber = 0;  ///< the smallest number of the file, 0 in its first slot
  std::uint64_t slots = 0;        ///< 0: the journal is in the runtime directory
  std::uint64_t checksum = 0;     ///< of the members above

  [[nodiscard]] std::uint64_t sum() const noexcept {
    return journalChecksum(this, offsetof(KLVJournalFileHeader, checksum));
  }
};

enum class KLVJournalState : std::uint64_t {
  reserved = 0,   ///< a call copies its data
  committed = 1,  ///< complete and unfinished
  finished = 2,
  skipped = 3,  ///< the entry has moved, or these slots are left out at the end of the ring
};

/// The first bytes of an entry. The session's id, the text and the attributes follow without a gap.
struct KLVJournalEntryHeader {
  static constexpr std::uint32_t kMagic = 0x454A564BU;  // "KVJE"
  static constexpr std::uint8_t kHasText = 1;
  static constexpr std::uint8_t kHasInfo = 2;

  std::uint64_t word = 0;      ///< number << 2 | state: the commit word, written last
  std::uint64_t checksum = 0;  ///< of what follows, and of the number (`seal`)
  std::uint64_t sequence = 0;  ///< the number that the entry got first: it differs from the word's once it has moved
  std::uint64_t epoch = 0;
  std::int64_t time = 0;  ///< nanoseconds since 1970
  std::uint32_t magic = kMagic;
  std::uint32_t bytes = 0;  ///< behind this header
  std::uint8_t kind = 0;
  std::uint8_t flags = 0;
  std::uint8_t parts = 0;
  std::uint8_t sessionBytes = 0;
  std::uint32_t textBytes = 0;

  [[nodiscard]] static std::uint64_t wordOf(std::uint64_t number, KLVJournalState state) noexcept {
    return number << 2U | static_cast<std::uint64_t>(state);
  }
  [[nodiscard]] static std::uint64_t numberOf(std::uint64_t word) noexcept { return word >> 2U; }
  [[nodiscard]] static KLVJournalState stateOf(std::uint64_t word) noexcept {
    return static_cast<KLVJournalState>(word & 3U);
  }
  /// Returns what the checksum contains of a number: an entry that moves exchanges it.
  [[nodiscard]] static std::uint64_t seal(std::uint64_t number) noexcept { return number * kJournalFactor; }
  /// Returns the number of slots of an entry with this many bytes behind its header.
  [[nodiscard]] static std::uint64_t slotsFor(std::uint64_t bytes) noexcept {
    return (sizeof(KLVJournalEntryHeader) + bytes + kJournalSlotBytes - 1) / kJournalSlotBytes;
  }
};

/// Where the bytes begin that the checksum covers. They end with the entry.
inline constexpr std::size_t kJournalSummedFrom = offsetof(KLVJournalEntryHeader, sequence);

static_assert(sizeof(KLVJournalEntryHeader) == 56 && std::is_trivially_copyable_v<KLVJournalEntryHeader>);
static_assert(sizeof(KLVJournalFileHeader) == 64 && std::is_trivially_copyable_v<KLVJournalFileHeader>);

}  // namespace kelvo
