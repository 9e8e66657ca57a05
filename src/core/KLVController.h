#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/CollectionGate.h"
#include "core/KLVComponents.h"
#include "core/KLVConsentControl.h"
#include "core/KLVErasure.h"
#include "core/KLVEventSource.h"
#include "core/KLVHostFlags.h"
#include "core/KLVPluginLoader.h"
#include "core/KLVStorageForwarding.h"
#include "core/Stages.h"
#include "events/KLVEventHandler.h"
#include "events/KLVNavigationMonitor.h"
#include "events/KLVSystemEventsMonitor.h"
#include "journal/KLVJournalEntry.h"
#include "network/KLVPostman.h"
#include "network/KLVSyncManager.h"
#include "platform/ThreadSafety.h"
#include "util/KLVSanitiser.h"

namespace kelvo {
struct Options;

/// The process-wide controller: owns every component, starts them, and forwards calls between them.
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
                            public KLVStorageForwarding,
                            public KLVConsentControl,
                            public KLVHostFlags {
 public:
  using Text = std::optional<std::string>;
  using Form = std::optional<Dictionary>;
  using EventRef = std::shared_ptr<KLVEvent>;
  using ListenerRef = std::shared_ptr<KLVEventListener>;

  static KLVController& sharedController();
  KLVController();

  // --- Start-up. Both do nothing but one ERROR line in a program that acts for another user (see Privileges.h).
  void initialize();  ///< at load: starts the library if the bundle's "Kelvo" names an application under "Core"
  void initializeWithKelvoID(Text appId, const Options* options = nullptr);  ///< `options`: of `KelvoSDK::start`
  void loadClientAndAggregateEvents();  ///< applies the service's lists if they have changed, else the saved ones
  /// Stops both monitors. Drops all buffers and refuses later calls, with the exception in `CollectionGate::terminate`.
  void terminateSDK();
  [[nodiscard]] bool enableSDK() { return gateState() == CollectionGate::State::running; }
  [[nodiscard]] bool isSDKInitCalled() { return gateState() != CollectionGate::State::idle; }
  [[nodiscard]] bool hasStarted();  ///< the start-up has ended; without the home, the state may still be initialising
  void eraseAll(bool collectsAfterwards) override { erasure_.begin(collectsAfterwards); }
  [[nodiscard]] bool leavesEventsToNextLaunch();  ///< without the home, under the rules `complete`

  // --- Host calls. `KLVConsentControl` holds each of them until the user has decided.
  void setUserIdentifier(const Text& identifier);
  void logScreenWithName(const Text& title);
  void logClientEventWithName(const Text& name, KLVHostAttributes info, bool shouldFlatten);
  void logAppEventWithName(const Text& name, KLVHostAttributes info, bool shouldFlatten, bool isAggregate);
  void setUserCustomInfo(KLVHostAttributes info);
  void setSessionCustomInfo(KLVHostAttributes info);
  void reportCustomError(const Text& error, KLVHostAttributes info);
  void logDeviceToken(const Value& token);
  void saveEvent(const EventRef& event, const Text& sessionId);  ///< never buffers it
  void markFatalAndUpdateDuration(std::optional<Date> duration, const Text& sessionId);

  // --- Calls of plug-ins: `PluginServices` documents them.
  void getSyncDataForActionType(const std::string& type, const std::string& version, std::function<void()> completion);
  std::optional<Dictionary> getPIDMIDDictForType(const std::string& type) override;
  void persistPIDMIDDict(const std::optional<Dictionary>& record, const std::string& type) override;
  void registerForEventWithType(KLVEventType type, const ListenerRef& listener) override;
  void deregisterForEventWithType(KLVEventType type, const ListenerRef& listener) override;
  void registerIdentifer(const std::string& key, const ListenerRef& listener) override;
  void deRegisterIdentifer(const std::string& key, const ListenerRef& listener) override;
  std::optional<Dictionary> getLifetimeCountForEvents(const std::vector<std::string>& names);
  std::int64_t getLifetimeCountForEventWithName(const std::string& name) override;
  void getDataFromURLPath(const Text& path, HTTPCompletion completion) override;
  void postDataToURL(const Text& path, const Form& body, const Form& headers, HTTPCompletion completion);
  void postChunk(const std::string& path, SlicedText body, const Dictionary& headers,
                 HTTPCompletion completion) override;
  void makeDeleteRequestToURLPath(const Text& path, const Form& headers, HTTPCompletion completion);
  void registerForTimerNotificationWithInterval(double seconds, std::function<void()> closure);
  void executeAfterDelay(double seconds, std::function<void()> block);

  // --- Records and counters: nullptr, nullopt or 0 until the start-up has made the record.
  Text getDeviceID();
  Text getHardwareModel();
  Text getSessionId();
  std::shared_ptr<KLVSession> session() override { return locked(&KLVComponents::session); }
  std::int64_t getLifetimeSessionCount();
  std::int64_t getRetentionDay();
  void updateRetentionDayCount();
  std::int64_t currentSDKTimeInMillis();

  // --- Waiting for earlier work: for the exit hook and for tools.
  void stopWaitingForMainLoop() { navigationMonitor_->stopReadingTitles(); }                          ///< from now on
  void performInOrder(std::function<void()> task) { controllerSerialQueue_.async(std::move(task)); }  ///< as host calls
  void whenStored(std::function<void()> done);  ///< once the database holds the data of all earlier calls
  void whenPosted(std::function<void()> done);  ///< the same, and the HTTP client has every chunk whose cut it caused
  void saveRecords(KLVWaitingCalls ofUser = {}, KLVWaitingCalls ofSession = {});  ///< on the controller's queue
  void whenStarted(std::function<void()> task) EXCLUDES(mutex_);  ///< at once, or on the thread that ends the start-up
  /// Calls `KLVChunkManager::deliverNow` behind all earlier host calls. Before the start, `isCut` is false.
  void deliverNow(bool waits, std::function<void(bool isCut)> done);
  [[nodiscard]] KLVDeliveryState deliveryState();
  [[nodiscard]] Text reasonNotToCollect();       ///< nullopt if this process collects, or its start-up is under way
  void rescue() EXCLUDES(mutex_, rescueMutex_);  ///< writes what is buffered to files (see `RescueFiles`); blocks

 private:
  friend class KLVErasure;
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
  void saveUserInfo() override { saveUserInfo({}); }
  void saveUserInfo(KLVWaitingCalls calls);  ///< `calls`: their attributes are in the record
  std::string applicationIdentifier() override { return locked(&KLVComponents::applicationIdentifier); }
  std::shared_ptr<KLVUser> user() override { return locked(&KLVComponents::user); }
  std::shared_ptr<KLVAppInfo> appInfo() override { return locked(&KLVComponents::appInfo); }
  std::shared_ptr<KLVDeviceInfo> deviceInfo() override { return locked(&KLVComponents::deviceInfo); }
  std::shared_ptr<KLVSDKInfo> sdkInfo() override { return locked(&KLVComponents::sdkInfo); }
  void getActionsFromURLPath(const Text& path, HTTPCompletion completion) override;
  void resumeDeletions() override { erasure_.resume(); }
  void eraseAtStart() override { erasure_.eraseAtStart(); }
  // Start-up: steps A and C on the controller's queue, step B on the lifecycle queue.
  void stepA(const std::string& userIdentifier, const HeldCalls::Calls& early) override;
  void stepB(std::uint64_t generation, const HTTPOutcome& answer);
  void stepC() EXCLUDES(mutex_, rescueMutex_);
  bool serviceAllowsCollection(const HTTPOutcome& answer, Text& hash);
  bool getEnableSDKState();
  void updateConfiguration(const Text& serviceHash);
  void startDeviceRecord() EXCLUDES(mutex_);
  void startRecords() EXCLUDES(mutex_);
  void mergeStoredUser() EXCLUDES(mutex_, rescueMutex_);
  void sendUserInfo();
  void logAppOpened();
  void stayTerminated() override;
  void finishStartUp() EXCLUDES(mutex_);
  void setEnabled(bool enabled) EXCLUDES(mutex_);
  void persistEvents(const std::vector<EventRef>& events) EXCLUDES(mutex_);
  void openJournal() REQUIRES(controllerSerialQueue_) EXCLUDES(rescueMutex_);
  void replayUnfinishedCalls() REQUIRES(controllerSerialQueue_);
  void fetchClientEvents(const std::string& hash);
  void loadEventsWithConfig(const std::optional<Dictionary>& config);
  std::optional<Dictionary> getClientEvents();
  void setCustomInfo(KLVHostAttributes info, bool isUser);
  void setAttributes(const BufferedAttributes& call) EXCLUDES(mutex_);
  void waitForEarlierEvents() EXCLUDES(mutex_);
  void verifyAndLogDeviceToken(const Text& token, const KLVWaitingCall& call) EXCLUDES(mutex_);
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
  std::vector<KLVJournalEntry> unfinishedCalls_ GUARDED_BY(controllerSerialQueue_);  ///< until step C replays them
  std::atomic<bool> holdsHome_{false};  ///< false until step A, and if another process holds it
  Mutex rescueMutex_;                   ///< held while a rescue writes or renames files; taken before `mutex_`
  Mutex mutex_;                         ///< held for assignments only, never across I/O or a callback
  CollectionGate gate_ GUARDED_BY(mutex_);
  std::vector<std::function<void()>> startWaiters_ GUARDED_BY(mutex_);
  KLVComponents components_ GUARDED_BY(mutex_);
  KLVErasure erasure_{*this};
  KLVPostman postman_;
  KLVAppEventSource appEventSource_{*this};
  KLVClientEventSource clientEventSource_{*this};
  KLVObservationSource observationSource_{*this};
  KLVEventHandler eventHandler_{*this};
  KLVSystemEventsMonitor systemEventMonitor_{*this};
  const std::shared_ptr<KLVNavigationMonitor> navigationMonitor_ = std::make_shared<KLVNavigationMonitor>(*this);
  KLVPluginLoader pluginManager_;
  KLVSyncManager syncManager_{*this};
};

}  // namespace kelvo
