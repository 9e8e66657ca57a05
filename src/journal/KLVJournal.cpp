#include "journal/KLVJournal.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <utility>

#include "journal/KLVJournalFile.h"
#include "journal/KLVJournalFormer.h"
#include "journal/KLVJournalRing.h"
#include "platform/Files.h"
#include "platform/ProcessWide.h"
#include "platform/Thread.h"
#include "util/KLVDictionaryCoding.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

constexpr std::uint64_t kLargestShare = 4;  // a call takes a quarter of the ring at most
constexpr std::size_t kLongestSession = 255;

/// Between the known numbers and those of a new file: more than torn entries of an earlier file can have.
constexpr std::uint64_t kGap = std::uint64_t{1} << 20;
/// The same if a file may be out of sight: more than it can have used, times a random factor, because the database may
/// know none of its numbers.
constexpr std::uint64_t kGapToUnknown = std::uint64_t{1} << 34;
constexpr std::uint64_t kLargestFactor = std::uint64_t{1} << 14;

/// Writes earlier entries into a new file.
class Copy {
 public:
  /// `entries` must outlive the copy.
  explicit Copy(const std::vector<KLVJournalEntry>& entries) : entries_(entries) {
    for (const auto& entry : entries) {
      infos_.push_back(entry.call.info ? codedForm(*entry.call.info) : std::nullopt);
      slots_ += KLVJournalEntryHeader::slotsFor(sizeOf(call(infos_.size() - 1)));
    }
  }

  [[nodiscard]] std::uint64_t slots() const noexcept { return slots_; }
  /// Returns the new numbers.
  [[nodiscard]] std::vector<std::uint64_t> writeTo(KLVJournalRing& ring) const {
    std::vector<std::uint64_t> numbers;
    for (std::size_t i = 0; i < entries_.size(); ++i) numbers.push_back(ring.write(call(i), sizeOf(call(i))));
    return numbers;
  }

 private:
  static std::uint32_t sizeOf(const KLVJournalCallView& call) noexcept {
    return KLVJournalRing::contentSize(call).value_or(0);
  }
  [[nodiscard]] KLVJournalCallView call(std::size_t index) const {
    const auto& [sequence, session, call] = entries_[index];
    return {call.kind, call.flags, call.time, session, call.text, infos_[index]};
  }

  const std::vector<KLVJournalEntry>& entries_;
  std::vector<std::optional<std::string>> infos_;
  std::uint64_t slots_ = 0;
};

/// Returns `bytes` rounded up to whole pages.
std::uint64_t wholePages(std::uint64_t bytes) {
  return (bytes + kJournalHeaderBytes - 1) / kJournalHeaderBytes * kJournalHeaderBytes;
}

/// Writes the Library directory's file without slots. Returns false with the reason in `failure` on failure.
bool writeMark(const KLVJournalSettings& settings, std::uint64_t home, std::string& failure) {
  KLVJournalFileHeader header;
  header.id = KLVJournal::randomEpoch();
  header.home = home;
  header.checksum = header.sum();
  std::string page(kJournalHeaderBytes, '\0');
  std::memcpy(page.data(), &header, sizeof(header));
  return writeFileAtomically(joinPath(settings.library, kKLVJournalFile), page, &failure);
}

}  // namespace

/// A file in use.
struct KLVJournal::Opened {
  std::string path;
  KLVJournalFile file;
  KLVJournalRing ring;
};

KLVJournal& KLVJournal::shared() {
  static ProcessWide<KLVJournal> instance;
  return *instance;
}

KLVJournal::KLVJournal() noexcept = default;
KLVJournal::~KLVJournal() = default;

std::uint64_t KLVJournal::randomEpoch() {
  std::random_device source;
  return (std::uint64_t{source()} << 32U | source()) | 1U;
}

std::uint64_t KLVJournal::epochOf(const KLVJournalSettings& settings) {
  for (const auto& file : KLVJournalFormers::read(journalPlaces(settings)).files) {
    if (file.contents.epoch != 0) return file.contents.epoch;
  }
  return 0;
}

std::vector<KLVJournalEntry> KLVJournal::open(const KLVJournalSettings& settings, std::uint64_t epoch,
                                              std::uint64_t latestSequence, const KLVSequenceSet& finished) {
  const auto formers = KLVJournalFormers::read(journalPlaces(settings));
  torn_ = 0;
  if (!formers.areReadable) return {};
  std::vector<KLVJournalEntry> all;  // first the foreign ones, then the known ones in their order
  std::multimap<std::uint64_t, const KLVJournalEntry*> known;  // by number
  for (const auto& file : formers.files) {
    const auto& contents = file.contents;
    torn_ += contents.torn;
    const bool isKnown = contents.epoch == epoch;
    bool isEmpty = true;
    for (const auto& entry : contents.unfinished) {
      if (isKnown && finished.contains(entry.sequence)) continue;
      isEmpty = false;
      if (isKnown) {
        known.emplace(entry.sequence, &entry);
      } else {
        all.push_back(entry);
      }
    }
    if (isEmpty) file.giveUp();  // on a full disk, its room is needed
  }
  const auto foreign = static_cast<std::ptrdiff_t>(all.size());
  for (const auto& [number, entry] : known) all.push_back(*entry);
  if (settings.bytes == 0 && all.empty()) return {};
  auto opened = make(settings, formers, epoch, latestSequence, all);
  if (opened == nullptr) return {all.begin() + foreign, all.end()};
  replace(formers, std::move(opened), epoch, settings.bytes > 0);
  return all;
}

/// Returns the first number of a new file, the number of its first slot.
std::uint64_t KLVJournal::firstNumberAfter(const KLVJournalFormers& formers, std::uint64_t latest,
                                           std::uint64_t slots) const noexcept {
  std::uint64_t gap = kGapToUnknown * (1 + (randomEpoch() >> 1U) % kLargestFactor);
  for (const auto& file : formers.files) {
    if (file.latestNumber() > 0) gap = kGap;
    latest = std::max(latest, file.latestNumber());
  }
  if (!opened_.empty()) latest = std::max(latest, opened_.back()->ring.headNumber());
  const std::uint64_t first = std::min(latest, kJournalLargestNumber) + gap;
  return (first + slots - 1) / slots * slots;
}

/// Makes the file in the best place that allows it, and writes `entries` into it, which get their new numbers. Returns
/// nullptr, after one line, if no place does.
std::unique_ptr<KLVJournal::Opened> KLVJournal::make(const KLVJournalSettings& settings,
                                                     const KLVJournalFormers& formers, std::uint64_t epoch,
                                                     std::uint64_t latest,
                                                     std::vector<KLVJournalEntry>& entries) const {
  const Copy copy(entries);
  const std::uint64_t needed = kJournalHeaderBytes + copy.slots() * kJournalSlotBytes;
  const std::uint64_t bytes = wholePages(std::max(settings.bytes, needed));
  KLVJournalFileHeader header;
  header.id = randomEpoch();
  header.home = formers.home != 0 ? formers.home : randomEpoch();
  header.epoch = epoch;
  header.slots = (bytes - kJournalHeaderBytes) / kJournalSlotBytes;
  header.firstNumber = firstNumberAfter(formers, latest, header.slots);
  std::string reason, failure;
  for (const auto& place : journalPlaces(settings)) {
    if (place.problem) {
      reason = *place.problem;
      continue;
    }
    header.absorbedId = 0;
    for (const auto& file : formers.files) {
      if (file.place.path != place.path) header.absorbedId = file.id();
    }
    header.checksum = header.sum();
    auto file = KLVJournalFile::make(place.path, bytes, failure);
    if (!file) continue;
    std::byte* const memory = file->memory();
    auto opened = std::unique_ptr<Opened>(new Opened{place.path, *std::move(file), {memory, header}});
    const auto numbers = copy.writeTo(opened->ring);
    if (!opened->file.keep(failure)) continue;
    // A kill before the mark is written leaves a file that does not count, and no call in it. The Library directory's
    // file, if there is one, still has its entries then.
    if (!place.isInLibrary && formers.home == 0 && !writeMark(settings, header.home, failure)) {
      ::unlink(place.path.c_str());
      continue;
    }
    for (std::size_t i = 0; i < entries.size(); ++i) entries[i].sequence = numbers[i];
    return opened;
  }
  if (failure.empty()) {
    KLV_INFO("The journal is off: {}", reason);
  } else {
    KLV_ERROR("The journal is off, because its file cannot be made: {}", failure);
  }
  return nullptr;
}

/// Makes the new file the one in use. Gives the earlier ones up.
void KLVJournal::replace(const KLVJournalFormers& formers, std::unique_ptr<Opened> opened, std::uint64_t epoch,
                         bool takesCalls) {
  replaced_ = {};
  for (const auto& file : formers.files) {
    if (file.place.path != opened->path) file.giveUp();
    if (file.contents.header && file.contents.epoch == epoch) {
      replaced_.add(file.contents.header->firstNumber, opened->ring.firstNumber());
    }
  }
  if (!takesCalls) opened->ring.close();
  opened_.push_back(std::move(opened));
  ring_.store(&opened_.back()->ring, std::memory_order_release);
  if (opened_.size() > 1) opened_[opened_.size() - 2]->file.retire();
}

std::uint64_t KLVJournal::write(KLVJournalKind kind, std::uint8_t flags, Date time,
                                std::optional<std::string_view> text, std::optional<std::string_view> info) noexcept {
  if (inForkedChild()) return 0;
  KLVJournalRing* const ring = ring_.load(std::memory_order_acquire);
  if (ring == nullptr || !ring->isOpen()) return 0;
  const std::string* const session = session_.load(std::memory_order_acquire);
  const KLVJournalCallView call{kind, flags, time, session != nullptr ? *session : std::string_view(), text, info};
  const auto size = KLVJournalRing::contentSize(call);
  std::uint64_t number = 0;
  if (size && KLVJournalEntryHeader::slotsFor(*size) <= ring->slots() / kLargestShare)
    number = ring->write(call, *size);
  if (number == 0) refused_.fetch_add(1, std::memory_order_relaxed);
  return number;
}

void KLVJournal::setSession(std::string_view session) {
  sessions_.emplace_back(session.substr(0, kLongestSession));
  session_.store(&sessions_.back(), std::memory_order_release);
}

void KLVJournal::finish(std::uint64_t sequence) noexcept {
  KLVJournalRing* const ring = ring_.load(std::memory_order_acquire);
  if (sequence > 0 && ring != nullptr && !inForkedChild()) ring->finish(sequence);
}

std::uint64_t KLVJournal::endOf(std::uint64_t sequence) noexcept {
  KLVJournalRing* const ring = ring_.load(std::memory_order_acquire);
  return ring != nullptr && !inForkedChild() ? ring->endOf(sequence) : sequence + 1;
}

void KLVJournal::addFreed(KLVSequenceSet& set) {
  KLVJournalRing* const ring = ring_.load(std::memory_order_acquire);
  if (ring == nullptr || inForkedChild()) return;
  set.add(replaced_);
  ring->addFreed(set);
}

void KLVJournal::erase() noexcept {
  KLVJournalRing* const ring = ring_.load(std::memory_order_acquire);
  if (ring != nullptr && !inForkedChild()) ring->erase();
}

bool KLVJournal::isOpen() const noexcept {
  const KLVJournalRing* const ring = ring_.load(std::memory_order_acquire);
  return ring != nullptr && ring->isOpen();
}

}  // namespace kelvo
