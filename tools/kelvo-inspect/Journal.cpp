#include "kelvo-inspect/Journal.h"

#include <cstdlib>
#include <utility>

#include "journal/KLVJournalFile.h"
#include "journal/KLVJournalPlace.h"
#include "journal/KLVJournalReader.h"

namespace kelvo::inspect {
namespace {

std::vector<KLVJournalPlace> placesOf(const std::string& library) {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  return journalPlaces({resolvedPath(library).value_or(library), runtime != nullptr ? runtime : "", 0});
}

Dictionary describe(const std::string& path, const std::optional<std::string>& content, const FileError& error) {
  Dictionary journal{{"path", path}};
  if (!content) {
    journal.set("problem", error);
    return journal;
  }
  const auto contents = readJournal(*content);
  Dictionary unfinished;
  for (const auto& entry : contents.unfinished) {
    const char* kind = nameOf(entry.call.kind);
    unfinished.set(kind, unfinished[kind].asInt64() + 1);
  }
  journal.set("bytes", content->size());
  journal.set("unfinished", std::move(unfinished));
  journal.set("torn", contents.torn);
  if (!contents.header) journal.set("problem", "its header is damaged");
  return journal;
}

}  // namespace

Array readJournals(const std::string& library) {
  Array journals;
  for (const auto& place : placesOf(library)) {
    const auto [content, problem, mayPass] = KLVJournalFile::read(place.path);
    if (content || !problem.empty()) journals.append(describe(place.path, content, problem));
  }
  return journals;
}

std::optional<Finding> examineJournal(const std::string& library, const Dictionary& info) {
  constexpr auto kDoubtful = Finding::Grade::doubtful;
  if (info["KelvoJournalBytes"] == Value(0)) {
    return Finding{kDoubtful, "journal", "switched off by the bundle", "A kill loses calls that are not stored yet"};
  }
  std::string reason;
  for (const auto& place : placesOf(library)) {
    if (!place.problem) return std::nullopt;
    reason = *place.problem;
  }
  return Finding{kDoubtful, "journal", "off, because " + reason,
                 "A kill loses calls that are not stored yet; set XDG_RUNTIME_DIR to a directory in memory"};
}

}  // namespace kelvo::inspect
