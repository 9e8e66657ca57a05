#include "journal/KLVJournalReader.h"

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "util/KLVDictionaryCoding.h"
#include "util/KLVSanitiser.h"

namespace kelvo {
namespace {

using EntryHeader = KLVJournalEntryHeader;
using State = KLVJournalState;

template <class Header>
Header headerAt(std::string_view bytes) {
  Header header;
  std::memcpy(&header, bytes.data(), sizeof(header));
  return header;
}

std::optional<KLVJournalFileHeader> fileHeader(std::string_view file) {
  if (file.size() < kJournalHeaderBytes) return std::nullopt;
  const auto header = headerAt<KLVJournalFileHeader>(file);
  const bool isSound = header.magic == KLVJournalFileHeader::kMagic && header.checksum == header.sum();
  return isSound ? std::optional(header) : std::nullopt;
}

/// Returns whether the entry at the front of `slots` is complete and undamaged.
bool isSound(const EntryHeader& header, std::string_view slots) {
  if (header.bytes > slots.size() - sizeof(EntryHeader)) return false;
  const std::size_t summed = sizeof(EntryHeader) - kJournalSummedFrom + header.bytes;
  return header.checksum == (journalChecksum(slots.data() + kJournalSummedFrom, summed) ^
                             EntryHeader::seal(EntryHeader::numberOf(header.word))) &&
         header.sequence > 0 && header.sequence <= EntryHeader::numberOf(header.word);
}

/// Returns the call of a sound entry, nullopt if it makes no sense. `content` follows the header.
std::optional<KLVJournalEntry> entryOf(const EntryHeader& header, std::string_view content) {
  const auto kind = static_cast<KLVJournalKind>(header.kind);
  const std::size_t texts = std::size_t{header.sessionBytes} + header.textBytes;
  if (kind < kKLVFirstJournalKind || kind > kKLVLastJournalKind || texts > content.size()) return std::nullopt;
  KLVJournalEntry entry;
  entry.sequence = header.sequence;
  entry.session = content.substr(0, header.sessionBytes);
  entry.call.kind = kind;
  entry.call.flags = header.flags;
  entry.call.time = Date(Date::duration(header.time));
  if ((header.parts & EntryHeader::kHasText) != 0) {
    entry.call.text = sanitised(std::string(content.substr(header.sessionBytes, header.textBytes)));
  }
  if ((header.parts & EntryHeader::kHasInfo) == 0) return entry;
  entry.call.info = sanitised(decodeDictionary(content.substr(texts)));
  return entry.call.info ? std::optional(std::move(entry)) : std::nullopt;
}

/// Looks at every slot of a file that was made with `count` slots.
class Scan {
 public:
  Scan(std::string_view slots, std::uint64_t count) : slots_(slots), count_(count) {}

  void run() {
    const std::uint64_t present = std::min<std::uint64_t>(count_, slots_.size() / kJournalSlotBytes);
    for (std::uint64_t slot = 0; slot < present;) slot += look(slot);
  }

  /// Moves the findings into `contents`, whose header is known.
  void deliver(KLVJournalContents& contents) {
    contents.latestNumber = latest_.word == 0 ? 0 : EntryHeader::numberOf(latest_.word);
    contents.epoch = contents.header ? contents.header->epoch : latest_.epoch;
    contents.torn = damaged_ + countTorn(contents);
    for (auto& [sequence, found] : unfinished_) {
      if (found.epoch != contents.epoch || finished_.contains(sequence)) continue;
      contents.unfinished.push_back(std::move(found.entry));
    }
  }

 private:
  struct Found {
    std::uint64_t epoch;
    KLVJournalEntry entry;
  };

  /// Returns the number of slots to go on.
  std::uint64_t look(std::uint64_t slot) {
    const auto rest = slots_.substr(slot * kJournalSlotBytes);
    const auto header = headerAt<EntryHeader>(rest);
    const std::uint64_t number = EntryHeader::numberOf(header.word);
    const State state = EntryHeader::stateOf(header.word);
    if (number == 0 || number > kJournalLargestNumber || number % count_ != slot) return 1;
    if (state == State::reserved) reserved_.push_back(number);
    if (state == State::reserved || header.magic != EntryHeader::kMagic) return 1;
    if (!isSound(header, rest)) {
      if (state == State::committed) ++damaged_;
      return 1;
    }
    if (header.word > latest_.word) latest_ = header;
    if (state == State::finished) finished_.insert(header.sequence);
    if (state == State::committed) keep(header, rest.substr(sizeof(header), header.bytes));
    return EntryHeader::slotsFor(header.bytes);
  }

  /// An entry that was about to move is there twice, with equal content.
  void keep(const EntryHeader& header, std::string_view content) {
    auto entry = entryOf(header, content);
    if (!entry) {
      ++damaged_;
      return;
    }
    unfinished_.insert_or_assign(header.sequence, Found{header.epoch, *std::move(entry)});
  }

  /// Counts the reserved slots. Bytes inside an entry may look like one by chance, but not with a number of this lap.
  [[nodiscard]] std::size_t countTorn(const KLVJournalContents& contents) const {
    const std::uint64_t first =
        std::max(contents.header ? contents.header->firstNumber : 1,
                 contents.latestNumber - std::min<std::uint64_t>(contents.latestNumber, count_));
    return static_cast<std::size_t>(std::count_if(reserved_.begin(), reserved_.end(), [&](std::uint64_t number) {
      return number >= first && number - first <= 2 * count_;
    }));
  }

  std::string_view slots_;
  std::uint64_t count_;
  EntryHeader latest_{};
  std::size_t damaged_ = 0;
  std::vector<std::uint64_t> reserved_;
  std::set<std::uint64_t> finished_;
  std::map<std::uint64_t, Found> unfinished_;
};

}  // namespace

const char* nameOf(KLVJournalKind kind) noexcept {
  switch (kind) {
    case KLVJournalKind::appEvent: return "application event";
    case KLVJournalKind::clientEvent: return "client event";
    case KLVJournalKind::aggregateEvent: return "aggregate event";
    case KLVJournalKind::customError: return "custom error";
    case KLVJournalKind::screen: return "named screen";
    case KLVJournalKind::willShow: return "screen about to show";
    case KLVJournalKind::didShow: return "screen shown";
    case KLVJournalKind::userAttributes: return "attributes of the user";
    case KLVJournalKind::sessionAttributes: return "attributes of the session";
    case KLVJournalKind::userIdentifier: return "identifier of the user";
    case KLVJournalKind::deviceToken: return "token of the device";
    case KLVJournalKind::becameActive: return "becoming active";
    case KLVJournalKind::resignsActive: return "resigning active";
    case KLVJournalKind::crash: return "crash";
    case KLVJournalKind::pluginEvent: return "event of a plug-in";
  }
  return "unknown";
}

KLVJournalContents readJournal(std::string_view file) {
  KLVJournalContents contents;
  contents.header = fileHeader(file);
  if (file.size() < kJournalHeaderBytes + kJournalSlotBytes) return contents;
  file.remove_prefix(kJournalHeaderBytes);
  const bool isKnown = contents.header && contents.header->slots > 0;
  Scan scan(file, isKnown ? contents.header->slots : file.size() / kJournalSlotBytes);
  scan.run();
  scan.deliver(contents);
  return contents;
}

}  // namespace kelvo
