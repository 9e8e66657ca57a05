#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/KLVEventSource.h"
#include "core/KLVPluginLoader.h"
#include "events/KLVEventHandler.h"
#include "events/KLVNavigationMonitor.h"
#include "events/KLVSystemEventsMonitor.h"
#include "network/KLVConfigManager.h"
#include "network/KLVPostman.h"
#include "network/KLVSyncManager.h"
#include "storage/KLVDataHandler.h"
#include "upload/KLVChunkManager.h"
#include "util/KLVUtilities+Views.h"

namespace kelvo {

/// The process-wide controller: owns every component, starts them, and forwards between them.
///
/// States: idle; initialising from the first accepted `initializeWithKelvoID`; running once the service or the saved
/// switch has allowed collection; terminated for good after `terminateSDK`. What the host logs before the data
/// handler has started is buffered, afterwards stored, and refused once terminated. Host calls do their work on the
/// controller's serial queue; start-up goes on where the HTTP client calls back.
class KLVController final : public KLVEventListener,
                            public KLVEventHandlerDelegate,
                            public KLVSystemEventsMonitorDelegate,
                            public KLVNavigationMonitorDelegate,
                            public KLVEventSourceDelegate,
                            public KLVSessionDelegate,
                            public KLVUserDelegate,
                            public KLVConfigManagerDelegate,
                            public KLVSyncManagerDelegate,
                            public KLVChunkManagerDelegate {
 public:
  static KLVController& sharedController();
  KLVController();

  // --- Start-up.
  /// Starts by the bundle's "Kelvo" dictionary, when it names an application under "Core".
  void initialize();
  void initializeWithKelvoID(std::optional<std::string> appId);
  void setAndSaveEnableSDKState(bool enabled) override;
  bool getEnableSDKState();
  void setupLoggerLevel();
  void terminateSDK();
  [[nodiscard]] bool enableSDK() const noexcept { return enableSDK_; }
  [[nodiscard]] bool isSDKInitCalled() const noexcept { return isSDKInitCalled_; }
  /// True once the start-up has come to its end, enabled or terminated.
  [[nodiscard]] bool hasStarted() const noexcept { return hasStarted_; }

  // --- What the host logs.
  void setUserIdentifier(std::optional<std::string> identifier);
  void logScreenWithName(const std::optional<std::string>& title);
  void logClientEventWithName(std::optional<std::string> name, std::optional<Dictionary> info, bool shouldFlatten);
  void logAppEventWithName(std::optional<std::string> name, std::optional<Dictionary> info, bool shouldFlatten,
                           bool isAggregate);
  void setUserCustomInfo(std::optional<Dictionary> info);
  void setSessionCustomInfo(std::optional<Dictionary> info);
  void reportCustomError(std::optional<std::string> error, std::optional<Dictionary> info);
  void logDeviceToken(const Value& token);

  // --- Events on their way to the bus and to storage.
  void dispatchEvent(const std::shared_ptr<KLVEvent>& event) override;
  void waitUntilDelivered() override;
  void saveLifetimeEvent(const std::shared_ptr<KLVEvent>& event) override;
  void saveEvent(const std::shared_ptr<KLVEvent>& event) override;
  void saveEvent(const std::shared_ptr<KLVEvent>& event, const std::optional<std::string>& sessionId);
  void processAggregateEventWithEvent(const std::shared_ptr<KLVEvent>& event) override;
  Array retrieveAggregateEventsWithSessionIdentifier(const std::string& identifier) override;

  // --- Lifecycle and sessions.
  void onEvent(const std::shared_ptr<KLVEvent>& event) override;
  void startSessionWithLaunchType(const std::optional<std::string>& launchType) override;
  void updateChunkEndTime() override;
  std::int64_t getLifetimeSessionCount();
  void incrementLifetimeSessionCount();
  std::int64_t getRetentionDay();
  void updateRetentionDayCount();
  void sendUserInfo();
  std::shared_ptr<KLVSession> retrieveSessionInfoWithIdentifier(const std::optional<std::string>& identifier) override;
  void saveSessionInfoWithIndentifier(const std::optional<std::string>& identifier) override;
  void saveUserInfo() override;
  void markFatalAndUpdateDuration(std::optional<Date> duration, const std::optional<std::string>& sessionId);

  // --- What the service steers: the lists that classify events, and the actions of plug-ins.
  /// Asks the service whether its lists have changed and puts them, or else the saved ones, to use.
  void loadClientAndAggregateEvents();
  void loadEventsWithConfig(const std::optional<Dictionary>& config);
  std::optional<Dictionary> getClientEvents();
  void persistClientEvents(const Dictionary& config);
  static std::optional<std::string> retrieveClientEventsHash();
  static void persistClientEventsHash(const std::string& hash);
  void getSyncDataForActionType(const std::string& actionType, const std::string& version,
                                std::function<void()> completion);
  std::optional<Dictionary> getPIDMIDDictForType(const std::string& type) override;
  void persistPIDMIDDict(const std::optional<Dictionary>& record, const std::string& type) override;

  // --- Forwarding.
  std::optional<std::string> getDeviceID();
  std::optional<std::string> getHardwareModel();
  std::optional<std::string> getSessionId();
  void markAsCordova() noexcept { isCordova_ = true; }
  [[nodiscard]] bool isCordova() const noexcept { return isCordova_; }
  void markAsReactNative() noexcept { KLVUtilities::setIsReactNative(true); }
  [[nodiscard]] bool isReactNative() const noexcept { return KLVUtilities::isReactNative(); }
  [[nodiscard]] bool actionInProgress() const noexcept { return actionInProgress_; }
  void setActionInProgress(bool inProgress) noexcept { actionInProgress_ = inProgress; }
  void saveFrequencyInfo(const Value& info, const std::optional<std::string>& identifier);
  std::optional<Value> retrieveFrequencyConfigWithIdentifier(const std::optional<std::string>& identifier);
  /// Name to count; nullopt for no names.
  std::optional<Dictionary> getLifetimeCountForEvents(const std::vector<std::string>& names);
  std::int64_t getLifetimeCountForEventWithName(const std::string& name) override;
  void registerForTimerNotificationWithInterval(double seconds, std::function<void()> closure);
  /// `block` runs on the controller's queue.
  void executeAfterDelay(double seconds, std::function<void()> block);
  std::int64_t currentSDKTimeInMillis();

  std::string applicationIdentifier() override { return locked(applicationIdentifier_); }
  std::shared_ptr<KLVSession> session() override { return locked(session_); }
  std::shared_ptr<KLVUser> user() override { return locked(user_); }
  std::shared_ptr<KLVAppInfo> appInfo() override { return locked(appInfo_); }
  std::shared_ptr<KLVDeviceInfo> deviceInfo() override { return locked(deviceInfo_); }
  std::shared_ptr<KLVSDKInfo> sdkInfo() override { return locked(sdkInfo_); }

  void registerForEventWithType(KLVEventType type, const std::shared_ptr<KLVEventListener>& listener) override;
  void deregisterForEventWithType(KLVEventType type, const std::shared_ptr<KLVEventListener>& listener) override;
  void registerIdentifer(const std::string& key, const std::shared_ptr<KLVEventListener>& listener) override;
  void deRegisterIdentifer(const std::string& key, const std::shared_ptr<KLVEventListener>& listener) override;

  std::uint64_t numberOfEventsWithIdentifier(const std::optional<std::string>& identifier) override;
  std::vector<Dictionary> getEventsBetween(std::uint64_t start, std::uint64_t end,
                                           const std::optional<std::string>& identifier,
                                           std::optional<KLVEventType> eventType) override;
  std::vector<std::string> getSessions() override;
  std::vector<std::shared_ptr<KLVChunkMetaInfo>> retrieveChunkMetaInfo() override;
  std::shared_ptr<KLVUser> retrieveUser();
  void saveChunkMetaInfo(const std::shared_ptr<KLVChunkMetaInfo>& meta) override;
  void updateChunkMetaInfo(const std::shared_ptr<KLVChunkMetaInfo>& meta) override;
  void updateChunkMetaStatus(const std::shared_ptr<KLVInfo>& chunk) override;
  void deleteChunkMetaInfo(const std::shared_ptr<KLVInfo>& chunk) override;
  void deleteSession(const std::optional<std::string>& identifier) override;
  void deleteItemAtPath(const std::optional<std::string>& path) override;
  void deleteAggregateEventsWithSessionId(const std::optional<std::string>& identifier) override;
  void writeTogether(const std::function<void()>& deletions) override;

  void getDataFromURLPath(const std::optional<std::string>& path, HTTPCompletion completion) override;
  void postDataToURL(const std::optional<std::string>& path, const std::optional<Dictionary>& body,
                     const std::optional<Dictionary>& headerFields, HTTPCompletion completion) override;
  void makeDeleteRequestToURLPath(const std::optional<std::string>& path, const std::optional<Dictionary>& headerFields,
                                  HTTPCompletion completion);

  // --- Quiescence: for the exit hook and for tools.
  /// From now on nothing waits for the host's main loop.
  void stopWaitingForMainLoop() { navigationMonitor_->stopReadingTitles(); }
  /// Runs `task` on the controller's queue, behind all host calls so far.
  void performInOrder(std::function<void()> task);
  /// Calls `done` once all that was handed over so far has reached the database.
  void whenStored(std::function<void()> done);
  /// At the end of a process whose start-up has not reached the database: writes the events that wait for it to a file,
  /// behind those of earlier such launches. The next launch stores them.
  void rescueEvents();
  /// Calls `done` once all is stored and the chunks that it caused to be cut are handed to the HTTP client.
  void whenPosted(std::function<void()> done);

 private:
  struct BufferedInfo {
    bool isUser;
    Dictionary info;
  };

  void stepA(const std::string& appId);
  void stepB(const std::optional<std::string>& data, const std::optional<HTTPResponse>& response,
             const std::optional<HTTPError>& error);
  bool serviceAllowsCollection(const std::optional<std::string>& data, const std::optional<HTTPResponse>& response,
                               const std::optional<HTTPError>& error, std::optional<std::string>& hash);
  void updateConfiguration(const std::optional<std::string>& serviceHash);
  void fetchClientEvents(const std::string& hash);
  void startRecords();
  void mergeStoredUser();
  void stepC();
  void stayTerminated();
  void persistEvents(std::vector<std::shared_ptr<KLVEvent>> events);
  void setCustomInfo(std::optional<Dictionary> info, bool isUser);
  void verifyAndLogDeviceToken(const std::optional<std::string>& token);
  bool clean(std::optional<Dictionary>& info);
  void onAppOpened();
  void onBackground();
  std::shared_ptr<KLVDataHandler> dataHandler() { return locked(dataHandler_); }
  std::shared_ptr<KLVConfigManager> configManager() { return locked(configManager_); }
  std::shared_ptr<KLVChunkManager> chunkManager() { return locked(chunkManager_); }
  std::shared_ptr<KLVEventListener> asListener();
  void whenDelivered(std::function<void()> done);

  template <class Field>
  Field locked(const Field& field) {
    const std::lock_guard lock(mutex_);
    return field;
  }

  std::atomic<bool> enableSDK_{false};
  std::atomic<bool> isSDKInitCalled_{false};
  std::atomic<bool> hasStarted_{false};
  std::atomic<bool> isCordova_{false};
  std::atomic<bool> actionInProgress_{false};

  std::mutex frequencyMutex_;  // one at a time reads, changes and writes the frequency info of all

  // Guards what follows; never held across I/O or a callback.
  std::mutex mutex_;
  bool dataHandlerStarted_ = false;
  bool storeInBuffer_ = true;
  std::vector<std::shared_ptr<KLVEvent>> eventsBuffer_;
  std::vector<BufferedInfo> infoBuffer_;
  std::optional<std::string> tokenBuffer_;
  std::string applicationIdentifier_;
  std::shared_ptr<KLVSession> session_;
  std::shared_ptr<KLVUser> user_;
  std::shared_ptr<KLVAppInfo> appInfo_;
  std::shared_ptr<KLVDeviceInfo> deviceInfo_;
  std::shared_ptr<KLVSDKInfo> sdkInfo_;
  std::shared_ptr<KLVDataHandler> dataHandler_;
  std::shared_ptr<KLVConfigManager> configManager_;
  std::shared_ptr<KLVChunkManager> chunkManager_;

  KLVPostman postman_;
  KLVAppEventSource appEventSource_{*this};
  KLVClientEventSource clientEventSource_{*this};
  KLVObservationSource observationSource_{*this};
  DispatchQueue controllerSerialQueue_{"com.kelvo.serial.controller"};
  KLVEventHandler eventHandler_{*this};
  KLVSystemEventsMonitor systemEventMonitor_{*this};
  const std::shared_ptr<KLVNavigationMonitor> navigationMonitor_ = std::make_shared<KLVNavigationMonitor>(*this);
  KLVPluginLoader pluginManager_;
  KLVSyncManager syncManager_{*this};
};

}  // namespace kelvo
