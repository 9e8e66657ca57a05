#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/CollectionGate.h"
#include "core/EarlyReports.h"
#include "core/KLVComponents.h"
#include "core/KLVEventSource.h"
#include "core/KLVPluginLoader.h"
#include "core/KLVStorageForwarding.h"
#include "core/Stages.h"
#include "events/KLVEventHandler.h"
#include "events/KLVNavigationMonitor.h"
#include "events/KLVSystemEventsMonitor.h"
#include "network/KLVPostman.h"
#include "network/KLVSyncManager.h"
#include "platform/ThreadSafety.h"

namespace kelvo {

/// The process-wide controller: owns every component, starts them, and forwards calls between them.
///
/// States: see `CollectionGate`. The delegate interfaces document the private overrides.
/// Thread: any. Host calls do their work on the controller's serial queue, start-up in HTTP callbacks.
class KLVController final : public KLVEventListener,
                            public KLVEventHandlerDelegate,
                            public KLVSystemEventsMonitorDelegate,
                            public KLVNavigationMonitorDelegate,
                            public KLVEventSourceDelegate,
                            public KLVSessionDelegate,
                            public KLVUserDelegate,
                            public KLVConfigManagerDelegate,
                            public KLVSyncManagerDelegate,
                            public KLVStorageForwarding {
 public:
  using Text = std::optional<std::string>;
  using Form = std::optional<Dictionary>;
  using EventRef = std::shared_ptr<KLVEvent>;
  using ListenerRef = std::shared_ptr<KLVEventListener>;

  static KLVController& sharedController();
  KLVController();

  // --- Start-up.
  /// Starts the library if the bundle's "Kelvo" dictionary names an application under "Core". Called at load.
  void initialize();
  void initializeWithKelvoID(Text appId);
  /// Asks the service whether its lists have changed. Applies the new lists, or else the saved ones.
  void loadClientAndAggregateEvents();
  /// Stops both monitors. Drops all buffers and refuses later calls, with the exception in `CollectionGate::terminate`.
  void terminateSDK();
  [[nodiscard]] bool enableSDK() { return gateState() == CollectionGate::State::running; }
  [[nodiscard]] bool isSDKInitCalled() { return gateState() != CollectionGate::State::idle; }
  /// Returns true once the start-up has ended. Without the home, the state may still be initialising.
  [[nodiscard]] bool hasStarted();
  [[nodiscard]] bool leavesEventsToNextLaunch();  ///< without the home, under the rules `complete`

  // --- Host calls. The work follows on the controller's queue, except for `logDeviceToken`.
  void setUserIdentifier(Text identifier);
  void logScreenWithName(const Text& title);
  void logClientEventWithName(Text name, std::optional<Dictionary> info, bool shouldFlatten);
  void logAppEventWithName(Text name, std::optional<Dictionary> info, bool shouldFlatten, bool isAggregate);
  void setUserCustomInfo(std::optional<Dictionary> info);
  void setSessionCustomInfo(std::optional<Dictionary> info);
  void reportCustomError(Text error, std::optional<Dictionary> info);
  void logDeviceToken(const Value& token);
  /// Stores `event` in the session `sessionId`. Never buffers it.
  void saveEvent(const EventRef& event, const Text& sessionId);
  void markFatalAndUpdateDuration(std::optional<Date> duration, const Text& sessionId);
  void markAsCordova() noexcept { isCordova_ = true; }
  [[nodiscard]] bool isCordova() const noexcept { return isCordova_; }
  void markAsReactNative() noexcept;
  [[nodiscard]] bool isReactNative() const noexcept;

  // --- Calls of plug-ins: `PluginServices` documents them.
  void getSyncDataForActionType(const std::string& type, const std::string& version, std::function<void()> completion);
  std::optional<Dictionary> getPIDMIDDictForType(const std::string& type) override;
  void persistPIDMIDDict(const std::optional<Dictionary>& record, const std::string& type) override;
  void registerForEventWithType(KLVEventType type, const ListenerRef& listener) override;
  void deregisterForEventWithType(KLVEventType type, const ListenerRef& listener) override;
  void registerIdentifer(const std::string& key, const ListenerRef& listener) override;
  void deRegisterIdentifer(const std::string& key, const ListenerRef& listener) override;
  void saveFrequencyInfo(const Value& info, const Text& identifier);
  std::optional<Value> retrieveFrequencyConfigWithIdentifier(const Text& identifier);
  std::optional<Dictionary> getLifetimeCountForEvents(const std::vector<std::string>& names);
  std::int64_t getLifetimeCountForEventWithName(const std::string& name) override;
  void registerForTimerNotificationWithInterval(double seconds, std::function<void()> closure);
  void executeAfterDelay(double seconds, std::function<void()> block);
  [[nodiscard]] bool actionInProgress() const noexcept { return actionInProgress_; }
  void setActionInProgress(bool inProgress) noexcept { actionInProgress_ = inProgress; }

  // --- Records and counters: nullptr, nullopt or 0 until the start-up has made the record.
  Text getDeviceID();
  Text getHardwareModel();
  Text getSessionId();
  std::shared_ptr<KLVSession> session() override { return locked(&KLVComponents::session); }
  std::int64_t getLifetimeSessionCount();
  std::int64_t getRetentionDay();
  void updateRetentionDayCount();
  std::int64_t currentSDKTimeInMillis();
  void makeDeleteRequestToURLPath(const Text& path, const Form& headers, HTTPCompletion completion);

  // --- Waiting for earlier work: for the exit hook and for tools.
  /// From now on nothing waits for the host's main loop.
  void stopWaitingForMainLoop() { navigationMonitor_->stopReadingTitles(); }
  /// Runs `task` on the controller's queue, behind all earlier host calls.
  void performInOrder(std::function<void()> task) { controllerSerialQueue_.async(std::move(task)); }
  void performReport(EarlyReports::Report report);  ///< the same; before the start, once the monitors observe
  /// Calls `done` on a library queue once the database holds all data of earlier calls.
  void whenStored(std::function<void()> done);
  /// Calls `done` once that data is stored, and the HTTP client has every chunk whose cut it caused.
  void whenPosted(std::function<void()> done);
  /// Saves the attributes of the user and of the session. Thread: the controller's queue.
  void saveRecords();
  /// Writes buffered events and user attributes to files for the next launch (see `RescueFiles`). Blocks on the disk.
  void rescue() EXCLUDES(mutex_, rescueMutex_);

 private:
  void setAndSaveEnableSDKState(bool enabled) override;
  void onEvent(const EventRef& event) override;
  void dispatchEvent(const EventRef& event) override;
  void waitUntilDelivered() override;
  void whenDelivered(std::function<void()> task) override { eventHandler_.whenDelivered(std::move(task)); }
  void saveLifetimeEvent(const EventRef& event) override EXCLUDES(mutex_);
  void saveEvent(const EventRef& event) override EXCLUDES(mutex_);
  void processAggregateEventWithEvent(const EventRef& event) override EXCLUDES(mutex_);
  Array retrieveAggregateEventsWithSessionIdentifier(const std::string& identifier) override;
  void startSessionWithLaunchType(const Text& launchType) override;
  void updateChunkStartTime(Date when) override;
  void updateChunkEndTime(Date when) override;
  void saveSessionInfoWithIndentifier(const Text& identifier) override;
  void saveUserInfo() override;
  std::string applicationIdentifier() override { return locked(&KLVComponents::applicationIdentifier); }
  std::shared_ptr<KLVUser> user() override { return locked(&KLVComponents::user); }
  std::shared_ptr<KLVAppInfo> appInfo() override { return locked(&KLVComponents::appInfo); }
  std::shared_ptr<KLVDeviceInfo> deviceInfo() override { return locked(&KLVComponents::deviceInfo); }
  std::shared_ptr<KLVSDKInfo> sdkInfo() override { return locked(&KLVComponents::sdkInfo); }
  void getDataFromURLPath(const Text& path, HTTPCompletion completion) override;
  void postDataToURL(const Text& path, const Form& body, const Form& headers, HTTPCompletion completion) override;

  // Start-up: step A on the controller's queue, step B in the HTTP callback, step C on the queue once storage is ready.
  void stepA(const std::string& appId) REQUIRES(controllerSerialQueue_);
  void stepB(const Text& data, const std::optional<HTTPResponse>& response, const std::optional<HTTPError>& error);
  void stepC() EXCLUDES(mutex_, rescueMutex_);
  bool serviceAllowsCollection(const Text& data, const std::optional<HTTPResponse>& response,
                               const std::optional<HTTPError>& error, Text& hash);
  bool getEnableSDKState();
  void updateConfiguration(const Text& serviceHash);
  void startDeviceRecord() EXCLUDES(mutex_);
  void startRecords() EXCLUDES(mutex_);
  void mergeStoredUser() EXCLUDES(mutex_, rescueMutex_);
  void setupLoggerLevel();
  void sendUserInfo();
  void incrementLifetimeSessionCount();
  void stayTerminated();
  void finishStartUp() EXCLUDES(mutex_);
  void setEnabled(bool enabled) EXCLUDES(mutex_);
  void persistEvents(const std::vector<EventRef>& events) EXCLUDES(mutex_);
  void fetchClientEvents(const std::string& hash);
  void loadEventsWithConfig(const std::optional<Dictionary>& config);
  std::optional<Dictionary> getClientEvents();
  void setCustomInfo(std::optional<Dictionary> info, bool isUser);
  void setAttributes(const BufferedAttributes& call) EXCLUDES(mutex_);
  void verifyAndLogDeviceToken(const Text& token) EXCLUDES(mutex_);
  bool storeRescuedEvents() EXCLUDES(mutex_, rescueMutex_);  ///< returns false if the newest file cannot be renamed
  ListenerRef asListener();
  std::vector<Stage> stagesUntilStored();
  CollectionGate::State gateState() EXCLUDES(mutex_);
  std::shared_ptr<KLVDataHandler> dataHandler() override { return locked(&KLVComponents::dataHandler); }
  template <class Field>
  Field locked(Field KLVComponents::*field) EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    return components_.*field;
  }
  std::atomic<bool> isCordova_{false}, actionInProgress_{false};
  Mutex frequencyMutex_;                ///< held while one thread reads, changes and writes the saved frequency info
  std::atomic<bool> holdsHome_{false};  ///< false until step A, and if another process holds it
  Mutex rescueMutex_;                   ///< held while a rescue writes or renames files; taken before `mutex_`
  Mutex mutex_;                         ///< held for assignments only, never across I/O or a callback
  CollectionGate gate_ GUARDED_BY(mutex_);
  KLVComponents components_ GUARDED_BY(mutex_);
  KLVPostman postman_;
  KLVAppEventSource appEventSource_{*this};
  KLVClientEventSource clientEventSource_{*this};
  KLVObservationSource observationSource_{*this};
  DispatchQueue controllerSerialQueue_{"com.kelvo.serial.controller"};
  EarlyReports earlyReports_ GUARDED_BY(controllerSerialQueue_);
  KLVEventHandler eventHandler_{*this};
  KLVSystemEventsMonitor systemEventMonitor_{*this};
  const std::shared_ptr<KLVNavigationMonitor> navigationMonitor_ = std::make_shared<KLVNavigationMonitor>(*this);
  KLVPluginLoader pluginManager_;
  KLVSyncManager syncManager_{*this};
};

}  // namespace kelvo
