#include "journal/KLVJournalFormer.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "journal/KLVJournalFile.h"
#include "util/KLVLogger.h"

namespace kelvo {

std::uint64_t KLVJournalFormer::latestNumber() const {
  return std::max(contents.latestNumber, contents.header ? contents.header->firstNumber : 0);
}

bool KLVJournalFormer::isIn(const std::vector<KLVJournalFormer>& files) const {
  return id() != 0 && std::any_of(files.begin(), files.end(), [this](const KLVJournalFormer& other) {
           return other.contents.header && other.contents.header->absorbedId == id();
         });
}

void KLVJournalFormer::giveUp() const {
  const bool keepsHeader = place.isInLibrary && contents.header;
  static_cast<void>(keepsHeader ? ::truncate(place.path.c_str(), kJournalHeaderBytes) : ::unlink(place.path.c_str()));
}

KLVJournalFormers KLVJournalFormers::read(const std::vector<KLVJournalPlace>& places) {
  KLVJournalFormers formers;
  auto& files = formers.files;
  for (const auto& place : places) {
    const auto [content, problem, mayPass] = KLVJournalFile::read(place.path);
    if (mayPass) formers.areReadable = false;
    if (!problem.empty()) KLV_ERROR("The journal {} cannot be read: {}", place.path, problem);
    if (!content) continue;
    KLVJournalFormer file{place, readJournal(*content)};
    if (place.isInLibrary && file.contents.header) formers.home = file.contents.header->home;
    if (content->size() > kJournalHeaderBytes) files.push_back(std::move(file));
  }
  if (!formers.areReadable) return formers;
  const auto isOrphan = [&](const KLVJournalFormer& file) {
    const auto& header = file.contents.header;
    return !file.place.isInLibrary && (formers.home == 0 || !header || header->home != formers.home);
  };
  const auto drop = [&](const auto& condition) {
    for (std::size_t i = files.size(); i-- > 0;) {
      if (!condition(files[i])) continue;
      files[i].giveUp();
      files.erase(files.begin() + static_cast<std::ptrdiff_t>(i));
    }
  };
  drop(isOrphan);
  drop([&](const KLVJournalFormer& file) { return file.isIn(files); });
  return formers;
}

}  // namespace kelvo
