#include <utility>

#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/JSON.h"
#include "records/KLVFileNames.h"
#include "storage/KLVDataHandlerJobs.h"
#include "storage/KLVFileStore.h"
#include "util/KLVException.h"
#include "util/KLVLogger.h"
#include "util/KLVUtilities+JSON.h"

namespace kelvo {
namespace {

/// Returns a record's storage form for a log line, or the reason why there is none. The job that saves the record logs
/// the reason again.
Value storageForm(const KLVInfo& record) {
  try {
    return record.jsonDict();
  } catch (const KLVInvalidArgument& error) {
    return error.what();
  }
}

/// Returns false on failure, which is not logged. `path` is relative to the Library directory.
[[nodiscard]] bool writeJSON(const Dictionary& content, std::string_view path) {
  const auto data = KLVUtilities::jsonDataFromNSDictionary(content);
  return data && writeFileAtomically(Directories::inLibrary(path), *data);
}

/// Writes Library/`session`/`name` and creates the directory if it is missing.
[[nodiscard]] bool writeSessionRecord(const KLVInfo& record, const std::string& session, std::string_view name) {
  if (!KLVSession::isIdentifier(session)) return false;
  const auto directory = Directories::inLibrary(session);
  if (FileError error; !fileExists(directory) && !makeDirectory(directory, false, &error)) {
    KLV_ERROR("Failed to create directory with path: {} due to: {}", directory, error);
  }
  return writeJSON(record.jsonDict(), joinPath(session, name));
}

bool isContainer(const Value& value) {
  return value.get<Dictionary>() != nullptr || value.get<Array>() != nullptr;
}

std::optional<Value> objectFromFile(const std::string& path, const KLVAnswerLimits& limits = kOwnFileLimits) {
  FileError error;
  const auto text = readFile(Directories::inLibrary(path), &error, limits.bytes);
  if (!text) {
    KLV_WARN("Opening file:{} . Error: {}", path, error);
    return std::nullopt;
  }
  error = "neither an array nor an object";
  if (auto object = parseJSON(*text, &error, limits.values); object && isContainer(*object)) return *std::move(object);
  KLV_ERROR("parsing json file {})", error);
  return std::nullopt;
}

template <class Record>
std::shared_ptr<Record> recordFromFile(const std::optional<Value>& content) {
  return objectFromJsonDict<Record>(content ? content->asDictionary() : std::nullopt);
}

}  // namespace

void KLVFileStore::saveAppInfo(std::shared_ptr<KLVAppInfo> info, std::string identifier) {
  if (!info) return;
  jobs_->async([info = std::move(info), identifier = std::move(identifier)] {
    if (!writeSessionRecord(*info, identifier, kKLVAppInfo)) KLV_ERROR("Failed to save AppInfo");
  });
}

void KLVFileStore::saveDeviceInfo(std::shared_ptr<KLVDeviceInfo> info) {
  if (!info) return;
  jobs_->async([info = std::move(info)] {
    if (!writeJSON(info->jsonDict(), kKLVDeviceInfo)) KLV_ERROR("Failed to save DeviceInfo");
  });
}

void KLVFileStore::saveSDKInfo(std::shared_ptr<KLVSDKInfo> info, std::string identifier) {
  if (!info) return;
  jobs_->async([info = std::move(info), identifier = std::move(identifier)] {
    if (!writeSessionRecord(*info, identifier, kKLVSDKInfo)) KLV_ERROR("Failed to save SDKInfo");
  });
}

void KLVFileStore::saveSessionInfo(std::shared_ptr<KLVSession> session, std::string identifier, KLVWaitingCalls calls) {
  if (!session) return;
  KLV_DEBUG("Saving session: {} with identifier: {}", storageForm(*session), identifier);
  jobs_->async(
      [jobs = jobs_.get(), session = std::move(session), identifier = std::move(identifier), calls = std::move(calls)] {
        const bool isSaved = writeSessionRecord(*session, identifier, kKLVSessionInfo);
        jobs->settleFile(identifier, calls, isSaved);
        if (!isSaved) KLV_ERROR("Failed to save SessionInfo");
      });
}

void KLVFileStore::saveUserInfo(std::shared_ptr<KLVUser> user, KLVWaitingCalls calls) {
  if (!user) return;
  KLV_DEBUG("Saving user info: {}", storageForm(*user));
  jobs_->async([jobs = jobs_.get(), user = std::move(user), calls = std::move(calls)] {
    // Kept: a failure is not logged.
    jobs->settleFile(kKLVUserDB, calls, writeJSON(user->jsonDict(), kKLVUserDB));
  });
}

std::shared_ptr<KLVSession> KLVFileStore::retrieveSessionInfoWithIdentifier(const std::string& identifier) {
  if (!KLVSession::isIdentifier(identifier)) return nullptr;
  return recordFromFile<KLVSession>(objectFromFileWithPath(joinPath(identifier, kKLVSessionInfo)));
}

std::shared_ptr<KLVUser> KLVFileStore::retrieveUser() {
  const auto content = objectFromFileWithPath(std::string(kKLVUserDB));
  return KLVUser::restored(content ? content->asDictionary() : std::nullopt);
}

void KLVFileStore::deleteItemAtPath(std::string path) {
  jobs_->async([path = std::move(path)] {
    FileError error = "it is no session's directory";
    if (KLVSession::isIdentifier(path) && removeItem(Directories::inLibrary(path), &error)) return;
    KLV_ERROR("Unable to remove file due to: {}", error);
  });
}

std::optional<Value> KLVFileStore::objectFromFileWithPath(const std::optional<std::string>& path,
                                                          const KLVAnswerLimits& limits) {
  if (!path) {
    KLV_WARN("Invalid path");
    return std::nullopt;
  }
  return jobs_->sync([&] { return objectFromFile(*path, limits); });
}

std::optional<Value> KLVFileStore::getEventsInfo() {
  return objectFromFileWithPath(std::string(kKLVEventsBuffer));
}

void KLVFileStore::persist(Dictionary config, std::string path, std::string failure,
                           std::function<void(bool isSaved)> completion) {
  jobs_->async([config = std::move(config), path = std::move(path), failure = std::move(failure),
                completion = std::move(completion)] {
    const bool isSaved = writeJSON(config, path);
    if (!isSaved) KLV_ERROR("{}", failure);
    if (completion) completion(isSaved);
  });
}

void KLVFileStore::persistFrequencyConfig(Dictionary config) {
  persist(std::move(config), std::string(kKLVSDKFrequencyConfig), "Unable to save freq config");
}

void KLVFileStore::saveFrequencyInfo(Value info, std::string identifier) {
  jobs_->async([info = std::move(info), identifier = std::move(identifier)] {
    const Value stored = objectFromFile(std::string(kKLVSDKFrequencyConfig));
    Dictionary config = stored.asDictionary().value_or(Dictionary());
    config.set(identifier, info);
    if (!writeJSON(config, kKLVSDKFrequencyConfig)) KLV_ERROR("Unable to save freq config");
  });
}

std::optional<Value> KLVFileStore::retrieveFrequencyConfig() {
  return objectFromFileWithPath(std::string(kKLVSDKFrequencyConfig));
}

void KLVFileStore::persistClientEvents(Dictionary config, std::function<void(bool isSaved)> completion) {
  persist(std::move(config), std::string(kKLVClientEventsPath), "Unable to save client events config",
          std::move(completion));
}

std::optional<Value> KLVFileStore::getClientEvents() {
  return objectFromFileWithPath(std::string(kKLVClientEventsPath), kStartUpLimits);
}

void KLVFileStore::persistPIDMIDDict(Dictionary config, std::string path) {
  // Kept: the same text as for the frequency configuration.
  persist(std::move(config), std::move(path), "Unable to save freq config");
}

std::optional<Value> KLVFileStore::getPIDMIDDictAtPath(const std::string& path) {
  return objectFromFileWithPath(path, kStartUpLimits);
}

}  // namespace kelvo
