// Fuzzes the reader of the journal's file: the input is the file. Checksums are corrected, so that the reader goes on.

#include <cstring>
#include <string>

#include "FuzzingInSilence.h"
#include "journal/KLVJournalReader.h"
#include "util/KLVDictionaryCoding.h"

namespace kelvo::fuzz {
namespace {

/// Gives the headers of the file and of every slot a right checksum, if they name the size of something that exists.
void correctChecksums(std::string& file) {
  if (file.size() < kJournalHeaderBytes) return;
  KLVJournalFileHeader header;
  std::memcpy(&header, file.data(), sizeof(header));
  header.checksum = header.sum();
  std::memcpy(file.data(), &header, sizeof(header));
  for (std::size_t at = kJournalHeaderBytes; at + kJournalSlotBytes <= file.size(); at += kJournalSlotBytes) {
    KLVJournalEntryHeader entry;
    std::memcpy(&entry, file.data() + at, sizeof(entry));
    if (entry.magic != KLVJournalEntryHeader::kMagic || entry.bytes > file.size() - at - sizeof(entry)) continue;
    const std::size_t summed = sizeof(entry) - kJournalSummedFrom + entry.bytes;
    entry.checksum = journalChecksum(file.data() + at + kJournalSummedFrom, summed) ^
                     KLVJournalEntryHeader::seal(KLVJournalEntryHeader::numberOf(entry.word));
    std::memcpy(file.data() + at, &entry, sizeof(entry));
  }
}

void read(std::string_view file) {
  const auto contents = readJournal(file);
  std::uint64_t before = 0;
  for (const auto& entry : contents.unfinished) {
    require(entry.sequence > before, "the numbers ascend");
    before = entry.sequence;
    require(before <= contents.latestNumber, "no number is above the latest");
    require(std::string_view(nameOf(entry.call.kind)) != "unknown", "the kind is known");
    if (!entry.call.info) continue;
    callEveryConversion(*entry.call.info);
    const auto form = codedForm(*entry.call.info);
    require(form.has_value(), "what was read can be written");
    require(decodeDictionary(*form) == entry.call.info, "it reads back");
  }
}

}  // namespace
}  // namespace kelvo::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  std::string file(reinterpret_cast<const char*>(bytes), size);
  kelvo::fuzz::read(file);
  // Most inputs are too short for a header: they are slots behind an empty one.
  if (size % 2 == 0) file.insert(0, kelvo::kJournalHeaderBytes, '\0');
  kelvo::fuzz::correctChecksums(file);
  kelvo::fuzz::read(file);
  return 0;
}
