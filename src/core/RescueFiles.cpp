#include "core/RescueFiles.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "platform/Clock.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/JSON.h"
#include "records/KLVFileNames.h"
#include "records/KLVUUID.h"
#include "records/KLVUser.h"
#include "storage/KLVJournalWrites.h"
#include "util/KLVException.h"
#include "util/KLVLedger.h"
#include "util/KLVLogger.h"
#include "util/KLVUtilities+JSON.h"

namespace kelvo {
namespace {

/// A quarter of what `readFile` reads, in bytes. A longer file is retired, and the events go on in a new one.
constexpr std::size_t kLongFile = std::size_t{16} << 20;
constexpr std::string_view kCorrupt = ".corrupt";

/// Returns a name that sorts behind the names of earlier calls.
std::string uniqueName() {
  const auto now = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch());
  return fmt::format("{}.{:019}-{}", kKLVEventsBuffer, now.count(), randomUUIDString());
}

bool isUniqueName(const std::string& name) {
  return name.starts_with(std::string(kKLVEventsBuffer) + ".") && !name.ends_with(kCorrupt);
}

bool renameInLibrary(std::string_view from, std::string_view to) {
  return std::rename(Directories::inLibrary(from).c_str(), Directories::inLibrary(to).c_str()) == 0;
}

/// The key of an event's entry in the journal, if it has one: the epoch and the number, "4e0f 4711".
constexpr std::string_view kEntry = "journal";

/// Returns the storage form as JSON text, empty if there is none.
std::string storageForm(const KLVEvent& event) {
  try {
    Dictionary form = event.jsonDict();
    const auto entry = event.call().sequence();
    if (entry != 0) form.set(kEntry, fmt::format("{:x} {}", KLVJournalWrites::epoch(), entry));
    return KLVUtilities::jsonDataFromNSDictionary(form).value_or("");
  } catch (const KLVInvalidArgument& fault) {
    KLV_ERROR("{}", fault.what());
    return {};
  }
}

/// Returns the array in the rescue file without its closing bracket, "[" if there is no file. Retires a file that takes
/// no more events; returns nullopt if that fails.
std::optional<std::string> beginOfArray() {
  const std::string path = Directories::inLibrary(kKLVEventsBuffer);
  if (!fileExists(path)) return "[";
  const auto text = readFile(path);
  const auto earlier = text && text->size() < kLongFile ? parseJSON(*text) : std::nullopt;
  if (earlier && earlier->get<Array>() != nullptr) {
    if (auto array = jsonText(*earlier)) return array->substr(0, array->size() - 1);
  }
  return RescueFiles::retire() ? std::optional<std::string>("[") : std::nullopt;
}

/// Counts the events in the ledger: `forms` of `events` are in the array.
bool write(const std::string& array, bool holdsHome, std::size_t forms, std::size_t events) {
  const std::string name = holdsHome ? std::string(kKLVEventsBuffer) : uniqueName();
  if (!writeFileAtomically(Directories::inLibrary(name), array + "]")) return false;
  KLVLedger::shared().addRescued(forms);
  KLVLedger::shared().add(KLVLedgerEntry::refusedUncleanable, events - forms);
  return true;
}

}  // namespace

std::size_t RescueFiles::writeEvents(const Events& events, bool holdsHome) {
  auto array = holdsHome ? beginOfArray() : "[";
  if (!array) return 0;
  std::size_t written = 0, count = 0, forms = 0;
  for (const auto& event : events) {
    const std::string form = storageForm(*event);
    if (array->size() + form.size() > kLongFile && array->size() > 1) {
      if (!write(*array, holdsHome, forms, count - written)) return written;
      written = count;
      forms = 0;
      if (holdsHome && !retire()) return written;
      array = "[";
    }
    if (!form.empty()) *array += (array->size() > 1 ? "," : "") + form;
    if (!form.empty()) ++forms;
    ++count;
  }
  return write(*array, holdsHome, forms, count - written) ? count : written;
}

bool RescueFiles::writeUserAttributes(const std::vector<BufferedAttributes>& calls) {
  const std::string path = Directories::inLibrary(kKLVUserDB);
  const auto text = readFile(path);
  if (!text && fileExists(path)) return false;
  const auto stored = text ? parseJSON(*text) : std::nullopt;
  const auto user = KLVUser::restored(stored ? stored->asDictionary() : std::nullopt);
  Dictionary attributes = user ? user->customInfo() : Dictionary();
  for (const BufferedAttributes& call : calls) {
    for (const auto& [key, value] : call.attributes) attributes.set(key, value);
  }
  const auto content = KLVUtilities::jsonDataFromNSDictionary(attributes);
  return content && writeFileAtomically(path, *content);
}

bool RescueFiles::isPending() {
  return fileExists(Directories::inLibrary(kKLVEventsBuffer));
}

bool RescueFiles::retire() {
  return !isPending() || renameInLibrary(kKLVEventsBuffer, uniqueName());
}

std::vector<std::string> RescueFiles::names() {
  std::vector<std::string> found;
  std::error_code failure;  // ignored: without the directory there are no files
  for (std::filesystem::directory_iterator entry(Directories::library(), failure), end; entry != end;
       entry.increment(failure)) {
    if (std::string name = entry->path().filename(); isUniqueName(name)) found.push_back(std::move(name));
  }
  std::sort(found.begin(), found.end());
  return found;
}

std::optional<RescueFiles::Events> RescueFiles::read(const std::string& name) {
  FileError error;
  const auto text = readFile(Directories::inLibrary(name), &error);
  if (!text) {
    KLV_ERROR("The rescued events in {} cannot be read: {}", name, error);
    return std::nullopt;
  }
  error = "it is no array";
  const auto content = parseJSON(*text, &error);
  const auto* forms = content ? content->get<Array>() : nullptr;
  if (forms == nullptr) {
    const std::string aside = std::string(kKLVEventsBuffer) + std::string(kCorrupt);
    const bool moved = renameInLibrary(name, aside);
    KLV_ERROR("The rescued events in {} are lost ({}){}", name, error, moved ? "; they are kept as " + aside : "");
    return std::nullopt;
  }
  Events events;
  for (const Value& form : *forms) {
    if (const auto* dictionary = form.get<Dictionary>()) events.push_back(objectFromJsonDict<KLVEvent>(*dictionary));
  }
  return events;
}

KLVSequenceSet RescueFiles::entries(std::uint64_t epoch) {
  KLVSequenceSet entries;
  auto files = names();
  if (isPending()) files.emplace_back(kKLVEventsBuffer);
  const std::string prefix = fmt::format("{:x} ", epoch);
  for (const std::string& name : files) {
    const auto content = parseJSON(readFile(Directories::inLibrary(name)).value_or(""));
    const auto* forms = content ? content->get<Array>() : nullptr;
    if (forms == nullptr) continue;
    for (const Value& form : *forms) {
      const std::string text = form.asDictionary().value_or(Dictionary())[kEntry].asText().value_or("");
      std::uint64_t sequence = 0;
      if (text.starts_with(prefix)) std::from_chars(&text[prefix.size()], text.data() + text.size(), sequence);
      if (sequence != 0) entries.add(sequence);
    }
  }
  return entries;
}

bool RescueFiles::remove(const std::string& name) {
  FileError error;
  if (removeItem(Directories::inLibrary(name), &error)) return true;
  KLV_ERROR("Unable to remove file due to: {}", error);
  return false;
}

}  // namespace kelvo
