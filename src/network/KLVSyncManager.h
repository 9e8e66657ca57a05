#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kelvo/Value.h"
#include "network/KLVHTTPSession.h"
#include "records/KLVDeviceInfo.h"

namespace kelvo {

/// The controller methods that the sync manager calls.
class KLVSyncManagerDelegate {
 public:
  virtual std::string applicationIdentifier() = 0;
  virtual std::shared_ptr<KLVDeviceInfo> deviceInfo() = 0;
  /// Returns the PID/MID record of `type` as last persisted, nullopt if there is none.
  virtual std::optional<Dictionary> getPIDMIDDictForType(const std::string& type) = 0;
  virtual void persistPIDMIDDict(const std::optional<Dictionary>& record, const std::string& type) = 0;
  virtual void getDataFromURLPath(const std::optional<std::string>& path, HTTPCompletion completion) = 0;
  /// As above, but with the limits of actions.
  virtual void getActionsFromURLPath(const std::optional<std::string>& path, HTTPCompletion completion) = 0;

 protected:
  ~KLVSyncManagerDelegate() = default;  // never deleted through this type
};

/// Synchronises the saved configurations of the real-time actions ("rta") and of the surveys (any other type) with the
/// service.
///
/// The service announces each campaign (PID) with its revision (MID), and a hash of all of them. The manager downloads
/// the new and changed campaigns only, and drops the withdrawn ones. Its state between two calls is on disk: the saved
/// configuration, the PID/MID record and the hash.
///
/// A download saves the configuration first, then the hash, then the record. If the process ends before the hash is
/// saved, the next call downloads again. So it does if the saved configuration cannot be read: its hash does not count.
/// If it ends after that, the record stays old until the service announces another hash; the next call then downloads
/// the campaigns that the record lacks or has in an older revision. Thread-safe, but nothing serialises two
/// simultaneous calls for one type.
class KLVSyncManager {
 public:
  /// `delegate` must outlive all calls.
  explicit KLVSyncManager(KLVSyncManagerDelegate& delegate) : delegate_(delegate) {}

  /// Starts one synchronisation and returns at once. `completion` is called once, on the HTTP callback queue, also
  /// after a failure: the caller then uses the saved configuration. It is never called if the service's answer has no
  /// hash or a new hash without campaigns.
  void getSyncDataForActionType(const std::string& actionType, const std::string& version,
                                std::function<void()> completion);

  /// Returns the saved configuration of `actionType`, a dictionary of actions by their "_id". Empty if there is none.
  [[nodiscard]] static Dictionary savedConfig(const std::string& actionType);

 private:
  /// One call of `getSyncDataForActionType`.
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
