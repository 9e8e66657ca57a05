#include "network/KLVSyncManager.h"

#include <utility>

#include "platform/Directories.h"
#include "platform/Files.h"
#include "records/KLVFileNames.h"
#include "util/KLVLogger.h"
#include "util/KLVServicePaths.h"
#include "util/KLVUtilities+Actions.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+Files.h"
#include "util/KLVUtilities+JSON.h"

namespace kelvo {
namespace {

bool isRTA(const std::string& actionType) {
  return actionType == "rta";
}

std::string fileOf(const std::string& actionType) {
  return std::string(isRTA(actionType) ? kKLVSDKRTAConfigLocation : kKLVSDKSurveyConfigLocation);
}

Array keys(const Dictionary& dictionary) {
  Array all;
  for (const auto& [key, value] : dictionary) all.append(key);
  return all;
}

bool save(const Dictionary& disk, const std::string& actionType) {
  return KLVUtilities::saveConfig(KLVUtilities::jsonDataFromNSDictionary(disk), fileOf(actionType));
}

/// Returns whether the saved configuration is a dictionary. Otherwise its hash does not count.
bool canReadConfig(const std::string& actionType) {
  const std::string path = Directories::inLibrary(fileOf(actionType));
  return fileExists(path) && Value(KLVUtilities::readConfig(path, kActionsLimits)).asDictionary();
}

/// The state on the device: the PID/MID record and the saved configuration.
struct State {
  Dictionary local;
  Dictionary disk;
  bool modified = false;  ///< whether a campaign was dropped from `disk`

  /// Removes the campaigns that are not in the saved configuration from the record, so that they are fetched again.
  void repairRecord() {
    for (const auto& [pid, mid] : Dictionary(local)) {
      if (KLVUtilities::doesConfig(disk, pid)) continue;
      KLV_DEBUG("Adjusting local PIDMIDs for PID: {}", pid);
      local.remove(pid);
    }
  }

  void drop(const std::string& pid) {
    KLV_INFO("Dropping config for PID: {}", pid);
    disk = KLVUtilities::dictionaryByRemovingEntryWithPID(pid, disk);
    modified = true;
  }

  void dropWithdrawn(const Dictionary& server) {
    for (const auto& [pid, mid] : Dictionary(local)) {
      if (server.contains(pid)) continue;
      local.remove(pid);
      drop(pid);
    }
  }

  void dropUnrecorded() {
    if (disk.size() == local.size()) return;
    KLV_WARN("Mismatch - action config count and local PIDs count");
    for (const std::string& pid : KLVUtilities::getAllPIDsInConfig(disk)) {
      if (!local.contains(pid)) drop(pid);
    }
  }
};

/// Returns the end of the query that fetches the new and changed campaigns. Empty if there are none.
std::string pidsToFetch(const Dictionary& server, const Dictionary& local) {
  std::string suffix;
  for (const auto& [pid, mid] : server) {
    const Value* known = local.find(pid);
    if (known == nullptr || !(*known == mid)) suffix += "&pids=" + pid;
  }
  return suffix;
}

}  // namespace

Dictionary KLVSyncManager::savedConfig(const std::string& actionType) {
  const Value saved = KLVUtilities::readConfigAtRelativePath(fileOf(actionType), kActionsLimits);
  return saved.asDictionary().value_or(Dictionary());
}

void KLVSyncManager::getSyncDataForActionType(const std::string& actionType, const std::string& version,
                                              std::function<void()> completion) {
  KLV_INFO("Getting data for action type: {}", actionType);
  const auto device = delegate_.deviceInfo();
  const auto filled = [&](std::string_view path) {
    std::string text = byReplacing(path, "<app-id>", delegate_.applicationIdentifier());
    text = byReplacing(text, "<user-id>", device ? device->identifier() : "");
    text = byReplacing(text, "<action-type>", actionType);
    return byReplacing(text, "<version>", version);
  };
  Sync sync{actionType, filled(isRTA(actionType) ? kKLVSDKRTASyncURL : kKLVSDKSurveySyncURL), std::move(completion)};
  delegate_.getDataFromURLPath(
      filled(kKLVSDKSyncValidateURL),
      [this, sync = std::move(sync)](const auto& data, const auto& response, const auto& error) {
        onValidated(sync, data, response, error);
      });
}

void KLVSyncManager::onValidated(const Sync& sync, const Data& data, const Response& response, const Error& error) {
  if (!succeeded(response, error)) {
    if (error) KLV_ERROR("Cound not validate hash: {}", error->localizedDescription);
    KLV_INFO("Sync config validation failed");
    KLV_INFO("Booting rta/survey plugin with saved configuration");
    return sync.completion();
  }
  KLV_DEBUG("Response for validating hash: {}", describe(response));
  const Value received = KLVUtilities::dictionaryFromNSData(data);
  KLV_DEBUG("Received data: {}", received);
  const Dictionary answer = received.asDictionary().value_or(Dictionary());
  const auto* hash = answer["hash"].get<std::string>();
  if (hash == nullptr) return;  // Kept: no log line, and no call of the completion.

  const auto saved = KLVUtilities::getHashForModule(sync.actionType);
  KLV_DEBUG("Existing hash: {}, new hash: {}", saved, *hash);
  const auto* announced = answer["pid_mid"].get<std::string>();
  const bool announces = announced != nullptr && !announced->empty();
  const bool isSame = !hash->empty() && saved == *hash;
  if (isSame && (!announces || canReadConfig(sync.actionType))) return sync.completion();

  if (!announces) {
    // Kept: no call of the completion here either, unlike after every other failure.
    KLV_WARN("Invalid pid_mid content inside action sync validate call for type: {}", sync.actionType);
    KLV_INFO("Refusing to get config for action type: {}", sync.actionType);
    return;
  }
  reconcile(sync, *hash, *announced);
}

void KLVSyncManager::reconcile(const Sync& sync, const std::string& hash, const std::string& announced) {
  const std::string& type = sync.actionType;
  Dictionary server = KLVUtilities::getPIDMIDDictFromString(announced);
  State state{delegate_.getPIDMIDDictForType(type).value_or(Dictionary()), {}};
  KLV_DEBUG("Server PIDMID data: {}", server);
  KLV_DEBUG("Local PIDMID data: {}", state.local);
  state.disk = savedConfig(type);
  if (state.disk.empty()) KLV_INFO("Empty config in disk for type: {}", type);
  KLV_INFO("Action config in disk: {}", keys(state.disk));

  state.repairRecord();
  KLV_DEBUG("Server PIDs: {}", keys(server));
  KLV_DEBUG("Local PIDs: {}", keys(state.local));
  const std::string pids = pidsToFetch(server, state.local);
  state.dropWithdrawn(server);
  state.dropUnrecorded();
  if (state.modified) {
    KLV_INFO("Action config for type: {} modified. Attempting to save config ..", type);
    if (save(state.disk, type)) {
      KLV_INFO("Saved action config for type: {}", type);
      delegate_.persistPIDMIDDict(state.local, type);
    }
  }
  if (pids.empty()) {
    // Kept: the new hash is not saved, so the next call compares again.
    KLV_INFO("No changes in sync config, not making any calls");
    return sync.completion();
  }
  fetch(sync, pids, hash, std::move(state.disk), std::move(server));
}

void KLVSyncManager::fetch(const Sync& sync, const std::string& pids, const std::string& hash, Dictionary disk,
                           Dictionary server) {
  const std::string path = sync.fetchPath + pids;
  KLV_DEBUG("URL to fetch action config: {}", path);
  delegate_.getActionsFromURLPath(path, [this, sync, hash, disk = std::move(disk), server = std::move(server)](
                                            const auto& data, const auto& response, const auto& error) {
    onFetched(sync, hash, disk, server, data, response, error);
  });
}

void KLVSyncManager::onFetched(const Sync& sync, const std::string& hash, Dictionary disk, const Dictionary& server,
                               const Data& data, const Response& response, const Error& error) {
  if (!succeeded(response, error)) {
    if (error) KLV_ERROR("Cound not validate hash: {}", error->localizedDescription);
    KLV_INFO("Sync config fetch failed");
    KLV_DEBUG("Booting with saved configuration");
    return sync.completion();
  }
  KLV_DEBUG("Response for getting config: {}", describe(response));
  const Value received = KLVUtilities::dictionaryFromNSData(data, kActionsLimits);
  KLV_DEBUG("Received data: {}", received);
  const Dictionary answer = received.asDictionary().value_or(Dictionary());
  const auto* configs = answer["configs"].get<Array>();
  if (configs == nullptr) {
    KLV_WARN("Invalid json result received");
    KLV_INFO("Will boot with saved configuration");
    return sync.completion();
  }
  KLV_INFO("Received action config for type: {}", sync.actionType);
  if (const auto fresh = KLVUtilities::iDKeyDictionaryForConfigs(*configs)) {
    KLV_INFO("Appending new config: {}", keys(*fresh));
    KLV_DEBUG("Appending new config for type: {}, config: {}", sync.actionType, *fresh);
    // Kept: an action of an earlier revision stays if the new revision has another "_id" for it.
    disk = KLVUtilities::addTwoDictionaries(disk, *fresh);
  }
  KLV_DEBUG("Config to be saved is: {}", disk);
  if (save(disk, sync.actionType)) {
    KLV_INFO("Saved action config for type: {}", sync.actionType);
    KLVUtilities::saveHash(hash, sync.actionType);
    delegate_.persistPIDMIDDict(server, sync.actionType);
  } else {
    KLV_WARN("Couldn't write action config to file");
    KLV_DEBUG("Will boot with saved configuration");
  }
  sync.completion();
}

}  // namespace kelvo
