#include "core/ConsentFile.h"

#include <utility>

#include "kelvo/Value.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/Immortal.h"
#include "platform/JSON.h"
#include "platform/ProcessWide.h"
#include "platform/ThreadSafety.h"
#include "platform/Trust.h"
#include "records/KLVFileNames.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

constexpr std::size_t kLargestConsentFile = std::size_t{1} << 20;  // bytes

Dictionary form(const KLVConsentFile& file) {
  Dictionary form;
  if (file.decision) form.set("consent", *file.decision == Consent::granted ? "granted" : "denied");
  if (file.isErasing) form.set("erasing", true);
  Array deletions;
  for (const auto& [appId, userId, secret] : file.deletions) {
    deletions.append(Dictionary{{"appId", appId}, {"userId", userId}, {"secret", secret}});
  }
  if (!deletions.empty()) form.set("deletions", std::move(deletions));
  return form;
}

std::optional<KLVDeletion> deletionOf(const Value& value) {
  const Dictionary deletion = value.asDictionary().value_or(Dictionary());
  const auto* appId = deletion["appId"].get<std::string>();
  const auto* userId = deletion["userId"].get<std::string>();
  const auto* secret = deletion["secret"].get<std::string>();
  if (appId == nullptr || userId == nullptr || secret == nullptr) return std::nullopt;
  return KLVDeletion{*appId, *userId, *secret};
}

/// Returns the content of the file's `text`, nullopt if any part of it is not as `form` writes it.
std::optional<KLVConsentFile> parsed(const std::string& text) {
  const auto value = parseJSON(text);
  const auto* form = value ? value->get<Dictionary>() : nullptr;
  if (form == nullptr) return std::nullopt;
  KLVConsentFile file;
  if (const Value& consent = (*form)["consent"]; consent == Value("granted")) {
    file.decision = Consent::granted;
  } else if (consent == Value("denied")) {
    file.decision = Consent::denied;
  } else if (!consent.isNull()) {
    return std::nullopt;
  }
  if (const Value& erasing = (*form)["erasing"]; !erasing.isNull()) {
    if (erasing.get<bool>() == nullptr) return std::nullopt;
    file.isErasing = erasing.asBool();
  }
  if (const Value& deletions = (*form)["deletions"]; !deletions.isNull()) {
    const auto* list = deletions.get<Array>();
    if (list == nullptr) return std::nullopt;
    for (const Value& each : *list) {
      auto deletion = deletionOf(each);
      if (!deletion) return std::nullopt;
      file.deletions.push_back(*std::move(deletion));
    }
  }
  return file;
}

Mutex& changeMutex() {
  static Immortal<Mutex> instance;
  return *instance;
}

/// Returns true unless the same damaged `text` was passed last.
bool isNewDamage(const std::string& text) {
  struct Last {
    Mutex mutex;
    std::optional<std::string> text GUARDED_BY(mutex);
  };
  static ProcessWide<Last> last;
  const Lock lock(last->mutex);
  return std::exchange(last->text, text) != text;
}

}  // namespace

KLVConsentFile KLVConsentFile::read(const std::string& library) {
  const std::string path = joinPath(library, kKLVConsent);
  if (!fileExists(path)) return {};
  FileError error;
  const auto text = readFile(path, &error, kLargestConsentFile);
  if (!text) {
    KLV_ERROR("The file {} cannot be read, which counts as a denial of consent: {}", path, error);
    return {Consent::denied, false, {}};
  }
  if (auto file = parsed(*text)) return *std::move(file);
  if (isNewDamage(*text)) KLV_ERROR("The file {} is damaged, which counts as a denial of consent", path);
  return {Consent::denied, true, {}};
}

KLVConsentFile KLVConsentFile::read() {
  const auto library = Directories::existingLibrary();
  if (!library) return {};
  auto file = read(*library);
  if (file.decision != Consent::granted) return file;
  std::string path = joinPath(*library, kKLVConsent);
  const std::string home = directoryOf(*library);
  auto reason = distrustAbove(home);
  if (!reason) reason = distrustBetween(home, path);
  if (reason) {
    KLV_ERROR("The user's consent does not count: {}", *reason);
    file.decision.reset();
  }
  return file;
}

bool KLVConsentFile::write() const {
  const std::string path = Directories::inLibrary(kKLVConsent);
  const Dictionary content = form(*this);
  FileError error;
  const bool isDone = content.empty() ? !fileExists(path) || removeItem(path, &error)
                                      : writeFileDurably(path, jsonText(content).value_or("{}"), &error);
  if (!isDone) KLV_ERROR("The file {} cannot be written: {}", path, error);
  return isDone;
}

bool KLVConsentFile::change(const std::function<void(KLVConsentFile&)>& change) {
  const Lock lock(changeMutex());
  KLVConsentFile file = read();
  change(file);
  return file.write();
}

}  // namespace kelvo
