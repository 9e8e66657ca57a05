#include "journal/KLVJournal.h"

#include <unistd.h>

#include <algorithm>
#include <random>
#include <utility>

#include "journal/KLVJournalFile.h"
#include "journal/KLVJournalReader.h"
#include "journal/KLVJournalRing.h"
#include "platform/Immortal.h"
#include "platform/Thread.h"
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

KLVJournalCallView viewOf(const KLVJournalEntry& entry) {
  const KLVJournalCall& call = entry.call;
  return {call.kind, call.flags, call.time, entry.session, call.text, call.info ? &*call.info : nullptr};
}

std::uint64_t slotsFor(const std::vector<KLVJournalEntry>& entries) {
  std::uint64_t slots = 0;
  for (const auto& entry : entries) {
    slots += KLVJournalEntryHeader::slotsFor(KLVJournalRing::contentSize(viewOf(entry)).value_or(0));
  }
  return slots;
}

/// Returns `bytes` rounded up to whole pages.
std::uint64_t wholePages(std::uint64_t bytes) {
  return (bytes + kJournalHeaderBytes - 1) / kJournalHeaderBytes * kJournalHeaderBytes;
}

}  // namespace

/// A file of an earlier process.
struct KLVJournal::Former {
  std::string path;
  KLVJournalContents contents;

  [[nodiscard]] std::uint64_t id() const { return contents.header ? contents.header->id : 0; }
  [[nodiscard]] std::uint64_t latestNumber() const {
    return std::max(contents.latestNumber, contents.header ? contents.header->firstNumber : 0);
  }
  [[nodiscard]] bool isIn(const std::vector<Former>& files) const {
    return id() != 0 && std::any_of(files.begin(), files.end(), [this](const Former& other) {
             return other.contents.header && other.contents.header->absorbedId == id();
           });
  }

  /// Reads the files in all places. Deletes one whose entries are in another one already.
  static std::vector<Former> read(const std::vector<KLVJournalPlace>& places) {
    std::vector<Former> files;
    for (const auto& place : places) {
      FileError error;
      const auto content = KLVJournalFile::read(place.path, error);
      if (content) files.push_back({place.path, readJournal(*content)});
      if (!error.empty()) KLV_ERROR("The journal {} cannot be read: {}", place.path, error);
    }
    for (std::size_t i = files.size(); i-- > 0;) {
      if (!files[i].isIn(files)) continue;
      ::unlink(files[i].path.c_str());
      files.erase(files.begin() + static_cast<std::ptrdiff_t>(i));
    }
    return files;
  }
};

/// A file in use.
struct KLVJournal::Opened {
  std::string path;
  KLVJournalFile file;
  KLVJournalRing ring;
};

KLVJournal& KLVJournal::shared() {
  static Immortal<KLVJournal> instance;
  return *instance;
}

KLVJournal::KLVJournal() noexcept = default;
KLVJournal::~KLVJournal() = default;

std::uint64_t KLVJournal::randomEpoch() {
  std::random_device source;
  return (std::uint64_t{source()} << 32U | source()) | 1U;
}

std::vector<KLVJournalEntry> KLVJournal::open(const KLVJournalSettings& settings, std::uint64_t epoch,
                                              std::uint64_t latestSequence, const KLVSequenceSet& finished) {
  const auto files = Former::read(journalPlaces(settings));
  std::vector<KLVJournalEntry> known, foreign;
  torn_ = 0;
  for (const auto& [path, contents] : files) {
    torn_ += contents.torn;
    const bool isKnown = contents.epoch == epoch;
    bool isEmpty = true;
    for (const auto& entry : contents.unfinished) {
      if (isKnown && finished.contains(entry.sequence)) continue;
      (isKnown ? known : foreign).push_back(entry);
      isEmpty = false;
    }
    if (isEmpty) ::unlink(path.c_str());  // on a full disk, its room is needed
  }
  std::stable_sort(known.begin(), known.end(),
                   [](const auto& left, const auto& right) { return left.sequence < right.sequence; });
  std::vector<KLVJournalEntry> all = std::move(foreign);
  all.insert(all.end(), known.begin(), known.end());
  if (settings.bytes == 0 && all.empty()) return {};
  auto opened = make(settings, files, epoch, latestSequence, all);
  if (opened == nullptr) return known;
  replace(files, std::move(opened), epoch, settings.bytes > 0);
  return all;
}

/// Returns the first number of a new file, the number of its first slot.
std::uint64_t KLVJournal::firstNumberAfter(const std::vector<Former>& files, std::uint64_t latest,
                                           std::uint64_t slots) const noexcept {
  std::uint64_t gap = kGapToUnknown * (1 + (randomEpoch() >> 1U) % kLargestFactor);
  for (const auto& file : files) {
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
                                                     const std::vector<Former>& files, std::uint64_t epoch,
                                                     std::uint64_t latest,
                                                     std::vector<KLVJournalEntry>& entries) const {
  const std::uint64_t needed = kJournalHeaderBytes + slotsFor(entries) * kJournalSlotBytes;
  const std::uint64_t bytes = wholePages(std::max(settings.bytes, needed));
  KLVJournalFileHeader header;
  header.id = randomEpoch();
  header.epoch = epoch;
  header.slots = (bytes - kJournalHeaderBytes) / kJournalSlotBytes;
  header.firstNumber = firstNumberAfter(files, latest, header.slots);
  std::string reason, failure;
  for (const auto& place : journalPlaces(settings)) {
    if (place.problem) {
      reason = *place.problem;
      continue;
    }
    header.absorbedId = 0;
    for (const auto& file : files) {
      if (file.path != place.path) header.absorbedId = file.id();
    }
    header.checksum = header.sum();
    auto file = KLVJournalFile::make(place.path, bytes, failure);
    if (!file) continue;
    std::byte* const memory = file->memory();
    auto opened = std::unique_ptr<Opened>(new Opened{place.path, *std::move(file), {memory, header}});
    std::vector<std::uint64_t> numbers;
    for (const auto& entry : entries) {
      const auto view = viewOf(entry);
      numbers.push_back(opened->ring.write(view, KLVJournalRing::contentSize(view).value_or(0)));
    }
    if (!opened->file.keep(failure)) continue;
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

/// Makes the new file the one in use. Deletes the earlier ones.
void KLVJournal::replace(const std::vector<Former>& files, std::unique_ptr<Opened> opened, std::uint64_t epoch,
                         bool takesCalls) {
  replaced_ = {};
  for (const auto& [path, contents] : files) {
    if (path != opened->path) ::unlink(path.c_str());
    if (contents.header && contents.epoch == epoch) {
      replaced_.add(contents.header->firstNumber, opened->ring.firstNumber());
    }
  }
  if (!takesCalls) opened->ring.close();
  opened_.push_back(std::move(opened));
  ring_.store(&opened_.back()->ring, std::memory_order_release);
  if (opened_.size() > 1) opened_[opened_.size() - 2]->file.retire();
}

std::uint64_t KLVJournal::write(KLVJournalKind kind, std::uint8_t flags, Date time,
                                std::optional<std::string_view> text, const Dictionary* info) noexcept {
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
