#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kelvo/Value.h"
#include "network/KLVHTTPSession.h"
#include "records/KLVDeviceInfo.h"

namespace kelvo {

/// What the sync manager asks of the controller.
class KLVSyncManagerDelegate {
 public:
  virtual std::string applicationIdentifier() = 0;
  virtual std::shared_ptr<KLVDeviceInfo> deviceInfo() = 0;
  /// The record of `type`, with every change that was persisted before.
  virtual std::optional<Dictionary> getPIDMIDDictForType(const std::string& type) = 0;
  virtual void persistPIDMIDDict(const std::optional<Dictionary>& record, const std::string& type) = 0;
  virtual void getDataFromURLPath(const std::optional<std::string>& path, HTTPCompletion completion) = 0;

 protected:
  ~KLVSyncManagerDelegate() = default;  // never deleted through this type
};

/// Keeps the saved configurations of the real-time actions ("rta") and of the surveys (any other type) in step with
/// the service, which announces the current revision (MID) of each campaign (PID) and a hash of them all. Only new and
/// changed campaigns are downloaded, and withdrawn ones are dropped.
///
/// Nothing is kept between two calls but the saved file, the PID/MID record and the hash. The hash is saved last, so a
/// sync that is interrupted is done again in full. Two calls for one type at a time are not kept apart.
class KLVSyncManager {
 public:
  /// `delegate` must outlive all calls.
  explicit KLVSyncManager(KLVSyncManagerDelegate& delegate) : delegate_(delegate) {}

  /// Returns at once. `completion` means: boot from the saved configuration now. It is called once, on the HTTP
  /// callback queue, after a failure too; but never when the service's answer has no hash or no campaigns.
  void getSyncDataForActionType(const std::string& actionType, const std::string& version,
                                std::function<void()> completion);

  /// What is saved for `actionType`: "_id" to action; empty when there is none.
  [[nodiscard]] static Dictionary savedConfig(const std::string& actionType);

 private:
  /// One call on its way.
  struct Sync {
    std::string actionType;
    std::string fetchPath;
    std::function<void()> completion;
  };
  using Data = std::optional<std::string>;
  using Response = std::optional<HTTPResponse>;
  using Error = std::optional<HTTPError>;

  void onValidated(const Sync& sync, const Data& data, const Response& response, const Error& error);
  void reconcile(const Sync& sync, const std::string& hash, const std::string& announced);
  void fetch(const Sync& sync, const std::string& pids, const std::string& hash, Dictionary disk, Dictionary server);
  void onFetched(const Sync& sync, const std::string& hash, Dictionary disk, const Dictionary& server, const Data& data,
                 const Response& response, const Error& error);

  KLVSyncManagerDelegate& delegate_;
};

}  // namespace kelvo
