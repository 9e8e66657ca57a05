#include <fmt/format.h>
#include <unistd.h>

#include <utility>

#include "core/HostSettings.h"
#include "core/KLVController.h"
#include "core/Readiness.h"
#include "core/RescueFiles.h"
#include "platform/Bundle.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/HomeLock.h"
#include "platform/JSON.h"
#include "platform/Privileges.h"
#include "platform/ServiceEndpoint.h"
#include "platform/SwitchedOff.h"
#include "platform/UserDefaults.h"
#include "records/KLVFileNames.h"
#include "util/KLVDefaultsKeys.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVLogger.h"
#include "util/KLVServicePaths.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+Files.h"
#include "util/KLVUtilities+JSON.h"

namespace kelvo {
namespace {

constexpr std::string_view kConfigHashModule = "sdk_config";

Array names(const std::vector<std::shared_ptr<KLVEvent>>& events) {
  Array all;
  for (const auto& event : events) all.append(event->identifier());
  return all;
}

/// Applies the "log_level" of the configuration.
void setupLoggerLevel(const Dictionary& configuration) {
  if (!configuration.contains("log_level")) return;
  const Value& level = configuration["log_level"];
  if (level == Value("debug")) {
    if (KLVLogger::setLogLevel(KLVLogger::Level::debug)) KLV_INFO("Changed Log level to: {}", level);
  } else if (level == Value("warn")) {
    if (KLVLogger::setLogLevel(KLVLogger::Level::warn)) KLV_INFO("Changed Log level to: {}", level);
  } else {
    KLVLogger::setLogLevel(KLVLogger::Level::error);
  }
}

/// Has the note on the disk before the first request that names the device. Without a service, there is no request.
void noteThatDeviceIsNamed() {
  if (ServiceEndpoint::shared().baseURL.empty()) return;
  static_cast<void>(KLVDeviceInfo::eraseSecret());
  UserDefaults::standard().set(kKLVIsNamedKey, true);
  UserDefaults::standard().synchronize();
}

/// Tells the host whether this process can store events.
void announceStorage(bool databaseIsReady) {
  auto problem = Directories::problem();
  if (!problem && ::access(Directories::library().c_str(), W_OK | X_OK) != 0) {
    problem = Directories::library() + " cannot be written";
  }
  if (!problem && !databaseIsReady) problem = "The database cannot be opened; the next event tries again";
  if (problem) return Readiness::shared().set(Readiness::State::failed, *std::move(problem));
  Readiness::shared().set(Readiness::State::running, "Events are collected and sent");
}

}  // namespace

void KLVController::initializeWithKelvoID(std::optional<std::string> appId, const Options* options) {
  if (HostSettings::refusesForeignRights()) return;
  const bool isValid = KLVUtilities::isValidString(appId);
  bool isFirst = false;
  {
    const Lock lock(mutex_);
    isFirst = isValid ? gate_.begin() : gate_.state() == CollectionGate::State::idle;
    if (isFirst && isValid) components_.applicationIdentifier = *appId;
  }
  if (!isFirst) {
    KLV_INFO("Kelvo SDK already initialized. Ignoring this call");
    return;
  }
  if (options != nullptr) {
    isValid ? HostSettings::shared().apply(*options) : HostSettings::shared().applyOutput(*options);
  }
  if (isValid && !KLVDeliveryRules::current().keepsJournal) KLVWaitingCall::closeJournal();
  if (!isValid) {
    if (!HostSettings::shared().requiresConsent()) letThreadsStart();
    KLV_ERROR("KelvoiOSSDK failed to initialize - invalid appId: {}", appId);
    return Readiness::shared().set(Readiness::State::failed, "The application id is empty");
  }
  if (const auto& reason = SwitchedOff::reason()) {
    {
      const Lock lock(mutex_);
      gate_.terminate(KLVLedgerEntry::refusedDisabled);
    }
    finishStartUp();
    KLV_INFO("Kelvo is switched off on this machine: {}", *reason);
    pastStart({});
    return Readiness::shared().set(Readiness::State::switchedOffHere, *reason);
  }
  pastStart(options != nullptr ? options->userIdentifier : "");
}

/// Thread: the controller's queue.
void KLVController::stepA(const std::string& userIdentifier, const HeldCalls::Calls& early) {
  const auto refuse = [&] {
    for (const auto& held : early) {
      if (!held.isReport()) held.call();  // the gate refuses or drops it
    }
  };
  const auto generation = erasure_.generation();
  if (!generation) return refuse();  // the end of the erasure starts the library again
  if (!userIdentifier.empty()) setAttributes({true, {{"custom_user_id", userIdentifier}}});
  const auto holder = HomeLock::takeOrFindHolder();
  holdsHome_ = !holder;
  if (holder) {
    const auto inUse = fmt::format("Process {} uses the home", *holder);
    const bool collects = KLVDeliveryRules::current().rescuesBesideAnotherProcess && getEnableSDKState();
    KLV_ERROR("Process {} uses the directory {} already; this process {}", *holder, Directories::library(),
              collects ? "leaves its events to the next launch" : "collects nothing");
    if (!collects) {
      stayTerminated();
      refuse();
      return Readiness::shared().set(Readiness::State::homeInUse, inUse + ": nothing is collected");
    }
    Readiness::shared().set(Readiness::State::homeInUse, inUse + ": events wait for the next launch");
  }
  if (!holder && !erasure_.finishInterrupted()) {
    stayTerminated();
    refuse();
    return Readiness::shared().set(Readiness::State::failed, "Not everything could be erased: nothing is collected");
  }
  controllerSerialQueue_.assertCurrent();
  holder ? KLVWaitingCall::closeJournal() : openJournal();
  if (!holder && *generation == 0) erasure_.resumeDeletions();  // later, the end of the old requests does this
  registerIdentifer(identifierKey(KLVEventType::app, kKLVAppOpened), asListener());
  registerIdentifer(identifierKey(KLVEventType::system, kKLVBackground), asListener());
  systemEventMonitor_.start();
  navigationMonitor_->start();
  for (const auto& held : early) held.call();
  navigationMonitor_->lookUpFirstScreen();
  if (holder) return finishStartUp();
  const std::string path = byReplacing(kKLVSDKEnableURL, "<app-id>", applicationIdentifier());
  postman_.getDataFromURLPath(
      fmt::format("{}{:f}", path, kKLVSDKVersion),
      [this, now = *generation](const auto& data, const auto& response, const auto& error) {
        erasure_.perform(now, [this, now, answer = HTTPOutcome{data, response, error}] { stepB(now, answer); });
      });
}

void KLVController::stepB(std::uint64_t generation, const HTTPOutcome& answer) {
  std::optional<std::string> serviceHash;
  if (!serviceAllowsCollection(answer, serviceHash)) {
    stayTerminated();
    return Readiness::shared().set(
        Readiness::State::disabledByService,
        answer.error ? "The service does not answer, and its last known answer switches collection off"
                     : "The service has switched collection off for this application");
  }

  startDeviceRecord();
  auto manager = std::make_shared<KLVConfigManager>(*this);
  {
    const Lock lock(mutex_);
    components_.configManager = manager;
  }
  updateConfiguration(serviceHash);
  const bool enabled = getEnableSDKState();
  setEnabled(enabled);
  if (!enabled) {
    stayTerminated();
    return Readiness::shared().set(Readiness::State::disabledByService,
                                   "The service's configuration switches collection off for this application");
  }
  startRecords();
  startSessionWithLaunchType("normal");
  setupLoggerLevel(manager->configDetails().value_or(Dictionary()));
  const auto handler = dataHandler();
  if (handler == nullptr) return;  // an erasure has begun
  noteThatDeviceIsNamed();
  loadClientAndAggregateEvents();
  handler->startWithCompletionHandler([this] { controllerSerialQueue_.sync([this] { stepC(); }); });
  controllerSerialQueue_.sync([this] { mergeStoredUser(); });
  auto chunks = KLVChunkManager::initWithConfiguration(manager->configDetails(), *this);
  {
    const Lock lock(mutex_);
    components_.chunkManager = chunks;
  }
  // The session may have restarted since the manager asked.
  if (KLVDeliveryRules::current().storesRestartedSessions) chunks->followSession();
  if (erasure_.generation() != generation) return;
  const auto* plugins = Bundle::main().infoDictionary()["Kelvo"].get<Dictionary>();
  pluginManager_.loadPlugins(plugins != nullptr ? std::optional(*plugins) : std::nullopt,
                             manager->configDetails().value_or(Dictionary()));
  sendUserInfo();
  // Not submitted as a host call, which an erasure that has begun meanwhile would keep.
  controllerSerialQueue_.async([this] { logAppOpened(); });
  KLV_INFO("KelvoiOSSDK ({}) : initialized!", fmt::format("{:.0f}", kKLVSDKVersion));
  updateRetentionDayCount();
  finishStartUp();
  handler->whenReady(announceStorage);
}

/// Thread: the controller's queue, behind the reports of activity so far.
void KLVController::logAppOpened() {
  KLVLedger::shared().add(KLVLedgerEntry::logged);
  appEventSource_.logEvent(std::string(kKLVAppOpened), Dictionary{{"type", "normal"}}, std::nullopt);
  if (!KLVDeliveryRules::current().cutsAfterStartInBackground) return;
  // No chunk manager may have been there to cut at BACKGROUND.
  if (const auto running = session(); running && running->isInBackground()) deliverNow(false, [](bool) {});
}

bool KLVController::serviceAllowsCollection(const HTTPOutcome& answer, std::optional<std::string>& hash) {
  const auto& [data, response, error] = answer;
  if (error) {
    KLV_ERROR("SDK enable network call failed : {}", error->localizedDescription);
    const bool enabled = getEnableSDKState();
    KLV_DEBUG("Fallback to saved status: {}", enabled);
    return enabled;
  }
  // Kept: a status other than 200 allows collection. A transport error falls back to the saved switch.
  if (!succeeded(response, error)) return true;
  std::string reason;
  const auto parsed = parseJSON(data.value_or(""), &reason, kStartUpLimits.values);
  if (!parsed) {
    KLV_ERROR("Error while fetching SDK enable status: {}", reason);
    return true;
  }
  KLV_DEBUG("Enable SDK call success with data: {}", *parsed);
  const auto* status = parsed->get<Dictionary>();
  if (status == nullptr) return true;
  if ((*status)["enabled"] == Value(0)) {
    KLV_ERROR("SDK not enabled");
    setAndSaveEnableSDKState(false);
    return false;
  }
  if (const auto* text = (*status)["hash"].get<std::string>()) hash = *text;
  return true;
}

void KLVController::updateConfiguration(const std::optional<std::string>& serviceHash) {
  const auto manager = locked(&KLVComponents::configManager);
  const auto saved = KLVUtilities::getHashForModule(std::string(kConfigHashModule));
  KLV_DEBUG("Saved hash value: {}", saved);
  const bool isSame = saved && serviceHash && !serviceHash->empty() && *saved == *serviceHash;
  if (isSame && manager->hasSavedConfiguration()) {
    KLV_DEBUG("Same hash, no changes in config");
    return;
  }
  KLV_DEBUG("New hash value: {}", serviceHash);
  KLV_INFO("Downloading config ...");
  manager->getAndSaveLatestConfigurationWithCompletionHandler([serviceHash] {
    // Without a hash of its own, the new file must not count as the one of the earlier hash.
    KLVUtilities::saveHash(serviceHash.value_or(""), std::string(kConfigHashModule));
  });
}

void KLVController::startDeviceRecord() {
  const auto device = std::make_shared<KLVDeviceInfo>("__undefined-devicename__");
  for (std::optional<std::string> token;;) {
    KLVWaitingCall call;
    {
      const Lock lock(mutex_);
      if (gate_.token() == token) {  // the record has the latest token, so no older one can replace a newer one
        components_.deviceInfo = device;
        return;
      }
      token = gate_.token();
      call = gate_.tokenCall();
    }
    device->logDeviceToken(*token, call);
  }
}

void KLVController::startRecords() {
  auto appInfo = std::make_shared<KLVAppInfo>("__undefined-appname__");
  HostSettings::shared().rename(*appInfo);
  auto sdkInfo = std::make_shared<KLVSDKInfo>("__undefined-sdkinfo__");
  auto user = std::make_shared<KLVUser>("__undefined-user__");
  user->setDelegate(this);
  const Lock lock(mutex_);
  components_.appInfo = std::move(appInfo);
  components_.sdkInfo = std::move(sdkInfo);
  components_.user = std::move(user);
}

/// Thread: the controller's queue. Host calls wait meanwhile, so the buffer is soon empty.
void KLVController::stepC() {
  controllerSerialQueue_.assertCurrent();
  for (bool isOpen = false; !isOpen;) {
    // Rescued events are older than buffered ones, so they are stored first, those of this process included.
    const bool isStored = storeRescuedEvents();
    replayUnfinishedCalls();
    const Lock files(rescueMutex_);  // no rescue comes between the check and the opening
    if (isStored && RescueFiles::isPending()) continue;
    std::vector<EventRef> events;
    {
      const Lock lock(mutex_);
      events = gate_.openDatabase();
    }
    persistEvents(events);
    isOpen = events.empty();
  }
}

void KLVController::persistEvents(const std::vector<EventRef>& events) {
  KLV_DEBUG("Persisting events buffer: {}", names(events));
  const auto handler = dataHandler();
  const std::string sessionId = session()->identifier();
  for (const auto& event : events) {
    const KLVEventType type = event->eventType();
    const bool isCounted = type == KLVEventType::app || type == KLVEventType::client || type == KLVEventType::aggregate;
    isCounted ? handler->saveAndCountEvent(event, sessionId) : handler->saveEventInfo(event, sessionId);
  }
}

void KLVController::stayTerminated() {
  KLVWaitingCall::closeJournal();
  terminateSDK();
  finishStartUp();
}

void KLVController::finishStartUp() {
  std::vector<std::function<void()>> waiters;
  {
    const Lock lock(mutex_);
    gate_.finishStartUp();
    if (gate_.startUpHasEnded()) waiters.swap(startWaiters_);
  }
  for (const auto& waiter : waiters) waiter();
}

void KLVController::whenStarted(std::function<void()> task) {
  {
    const Lock lock(mutex_);
    if (!gate_.startUpHasEnded()) return startWaiters_.push_back(std::move(task));
  }
  task();
}

void KLVController::setEnabled(bool enabled) {
  const Lock lock(mutex_);
  gate_.setEnabled(enabled);
}

void KLVController::setAndSaveEnableSDKState(bool enabled) {
  KLV_DEBUG("Setting enable SDK state: {}", enabled);
  setEnabled(enabled);
  KLVUtilities::saveConfig(KLVUtilities::jsonDataFromNSDictionary(Dictionary{{"status", enabled}}),
                           std::string(kKLVSDKEnableStatusConfig));
}

bool KLVController::getEnableSDKState() {
  const std::string path = Directories::inLibrary(kKLVSDKEnableStatusConfig);
  if (fileExists(path)) {
    const auto config = KLVUtilities::readConfig(path);
    const auto* dictionary = config ? config->get<Dictionary>() : nullptr;
    if (dictionary != nullptr && dictionary->contains("status")) return (*dictionary)["status"].asBool();
    KLV_WARN("Invalid config dictionary: {} at path: {} has ", config, path);
  } else {
    KLV_WARN("Config doesn't exist at path: {}", path);
  }
  auto& defaults = UserDefaults::standard();
  if (!defaults.contains(kKLVLegacyEnableSDKKey)) return true;
  const bool enabled = defaults.boolean(kKLVLegacyEnableSDKKey);
  if (holdsHome_) defaults.remove(kKLVLegacyEnableSDKKey);  // Kept: the value is not copied into the file.
  return enabled;
}

}  // namespace kelvo
