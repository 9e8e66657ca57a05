#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "records/KLVAppInfo.h"
#include "records/KLVDeviceInfo.h"
#include "records/KLVSDKInfo.h"
#include "records/KLVSession.h"
#include "records/KLVUser.h"
#include "util/KLVAnswerLimits.h"
#include "util/KLVWaitingCall.h"

namespace kelvo {

class KLVDataHandlerJobs;

/// The part of `KLVDataHandler` that keeps data in files of the Library directory. Thread-safe, as described there.
class KLVFileStore {
 public:
  // --- Records, each a file, whose saving finishes `calls`. A null record is ignored. `identifier` names the
  // directory. It must have the form of a session id: otherwise nothing is saved, and nothing is found.
  void saveAppInfo(std::shared_ptr<KLVAppInfo> info, std::string identifier);
  void saveDeviceInfo(std::shared_ptr<KLVDeviceInfo> info);
  void saveSDKInfo(std::shared_ptr<KLVSDKInfo> info, std::string identifier);
  void saveSessionInfo(std::shared_ptr<KLVSession> session, std::string identifier, KLVWaitingCalls calls = {});
  void saveUserInfo(std::shared_ptr<KLVUser> user, KLVWaitingCalls calls = {});
  std::shared_ptr<KLVSession> retrieveSessionInfoWithIdentifier(const std::string& identifier);
  std::shared_ptr<KLVUser> retrieveUser();

  // --- Files. A path is relative to the Library directory. A file holds a JSON object or array; reads return nullopt
  // if it is missing or holds anything else.
  /// Deletes the directory of a session, whose id is the path. Refuses any other path with one ERROR line.
  void deleteItemAtPath(std::string path);
  /// A file beyond `limits` counts as missing: one WARN line.
  std::optional<Value> objectFromFileWithPath(const std::optional<std::string>& path,
                                              const KLVAnswerLimits& limits = kOwnFileLimits);
  std::optional<Value> getEventsInfo();
  void persistFrequencyConfig(Dictionary config);
  /// Sets `info` under `identifier` in the frequency configuration.
  void saveFrequencyInfo(Value info, std::string identifier);
  std::optional<Value> retrieveFrequencyConfig();
  /// Calls `completion`, unless empty, on the data queue. Passes false if the file could not be written: it then holds
  /// the earlier lists.
  void persistClientEvents(Dictionary config, std::function<void(bool isSaved)> completion = nullptr);
  std::optional<Value> getClientEvents();
  void persistPIDMIDDict(Dictionary config, std::string path);
  std::optional<Value> getPIDMIDDictAtPath(const std::string& path);

 protected:
  explicit KLVFileStore(std::shared_ptr<KLVDataHandlerJobs> jobs) : jobs_(std::move(jobs)) {}
  ~KLVFileStore() = default;  // never deleted through this type

  std::shared_ptr<KLVDataHandlerJobs> jobs_;

 private:
  /// Queues writing `config` as JSON to `path`; logs `failure` if that fails. Then calls `completion`, unless empty.
  void persist(Dictionary config, std::string path, std::string failure,
               std::function<void(bool isSaved)> completion = nullptr);
};

}  // namespace kelvo
