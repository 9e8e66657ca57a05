#include <fmt/format.h>

#include <utility>

#include "core/KLVController.h"
#include "platform/Bundle.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/HomeLock.h"
#include "platform/JSON.h"
#include "platform/UserDefaults.h"
#include "records/KLVFileNames.h"
#include "util/KLVDefaultsKeys.h"
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

}  // namespace

void KLVController::initializeWithKelvoID(std::optional<std::string> appId) {
  if (isSDKInitCalled()) {
    KLV_INFO("Kelvo SDK already initialized. Ignoring this call");
    return;
  }
  if (KLVUtilities::isInvalidString(appId)) {
    KLV_ERROR("KelvoiOSSDK failed to initialize - invalid appId: {}", appId);
    return;
  }
  bool isFirst = false;
  {
    const Lock lock(mutex_);
    isFirst = gate_.begin();
    if (isFirst) components_.applicationIdentifier = *appId;
  }
  if (!isFirst) {  // another thread was faster
    KLV_INFO("Kelvo SDK already initialized. Ignoring this call");
    return;
  }
  controllerSerialQueue_.async([this, id = *std::move(appId)] { stepA(id); });
}

void KLVController::stepA(const std::string& appId) {
  if (const auto holder = HomeLock::takeOrFindHolder()) {
    KLV_ERROR("Process {} uses the directory {} already; this process collects nothing", *holder,
              Directories::library());
    return stayTerminated();
  }
  registerIdentifer(identifierKey(KLVEventType::app, kKLVAppOpened), asListener());
  registerIdentifer(identifierKey(KLVEventType::system, kKLVBackground), asListener());
  systemEventMonitor_.start();
  navigationMonitor_->start();
  const std::string path = byReplacing(kKLVSDKEnableURL, "<app-id>", appId);
  postman_.getDataFromURLPath(fmt::format("{}{:f}", path, kKLVSDKVersion),
                              [this](auto data, auto response, auto error) { stepB(data, response, error); });
}

void KLVController::stepB(const std::optional<std::string>& data, const std::optional<HTTPResponse>& response,
                          const std::optional<HTTPError>& error) {
  std::optional<std::string> serviceHash;
  if (!serviceAllowsCollection(data, response, error, serviceHash)) return stayTerminated();

  auto deviceInfo = std::make_shared<KLVDeviceInfo>("__undefined-devicename__");
  {
    const Lock lock(mutex_);
    components_.deviceInfo = deviceInfo;
    if (gate_.token()) deviceInfo->logDeviceToken(*gate_.token());
  }
  auto manager = std::make_shared<KLVConfigManager>(*this);
  {
    const Lock lock(mutex_);
    components_.configManager = manager;
  }
  updateConfiguration(serviceHash);
  const bool enabled = getEnableSDKState();
  setEnabled(enabled);
  if (!enabled) return stayTerminated();
  startRecords();
  startSessionWithLaunchType("normal");
  setupLoggerLevel();
  loadClientAndAggregateEvents();
  dataHandler()->startWithCompletionHandler([this] { stepC(); });
  // On the queue of host calls, so that no attribute set meanwhile gets lost.
  controllerSerialQueue_.sync([this] { mergeStoredUser(); });
  auto chunks = KLVChunkManager::initWithConfiguration(manager->configDetails(), *this);
  {
    const Lock lock(mutex_);
    components_.chunkManager = std::move(chunks);
  }
  const auto* plugins = Bundle::main().infoDictionary()["Kelvo"].get<Dictionary>();
  pluginManager_.loadPlugins(plugins != nullptr ? std::optional(*plugins) : std::nullopt,
                             manager->configDetails().value_or(Dictionary()));
  sendUserInfo();
  logAppEventWithName(std::string(kKLVAppOpened), Dictionary{{"type", "normal"}}, false, false);
  KLV_INFO("KelvoiOSSDK ({}) : initialized!", fmt::format("{:.0f}", kKLVSDKVersion));
  updateRetentionDayCount();
  finishStartUp();
}

bool KLVController::serviceAllowsCollection(const std::optional<std::string>& data,
                                            const std::optional<HTTPResponse>& response,
                                            const std::optional<HTTPError>& error, std::optional<std::string>& hash) {
  if (error) {
    KLV_ERROR("SDK enable network call failed : {}", error->localizedDescription);
    const bool enabled = getEnableSDKState();
    KLV_DEBUG("Fallback to saved status: {}", enabled);
    return enabled;
  }
  // Kept: a status other than 200 allows collection. A transport error falls back to the saved switch.
  if (!succeeded(response, error)) return true;
  std::string reason;
  const auto parsed = parseJSON(data.value_or(""), &reason);
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
  const auto saved = KLVUtilities::getHashForModule(std::string(kConfigHashModule));
  KLV_DEBUG("Saved hash value: {}", saved);
  if (saved && serviceHash && *saved == *serviceHash) {
    KLV_DEBUG("Same hash, no changes in config");
    return;
  }
  KLV_DEBUG("New hash value: {}", serviceHash);
  KLV_INFO("Downloading config ...");
  locked(&KLVComponents::configManager)->getAndSaveLatestConfigurationWithCompletionHandler([serviceHash] {
    if (serviceHash) KLVUtilities::saveHash(*serviceHash, std::string(kConfigHashModule));
  });
}

void KLVController::startRecords() {
  auto appInfo = std::make_shared<KLVAppInfo>("__undefined-appname__");
  auto sdkInfo = std::make_shared<KLVSDKInfo>("__undefined-sdkinfo__");
  auto user = std::make_shared<KLVUser>("__undefined-user__");
  user->setDelegate(this);
  const Lock lock(mutex_);
  components_.appInfo = std::move(appInfo);
  components_.sdkInfo = std::move(sdkInfo);
  components_.user = std::move(user);
}

void KLVController::mergeStoredUser() {
  const auto stored = retrieveUser();
  if (stored == nullptr) return;
  const auto current = user();
  if (stored->identifier().empty()) stored->setIdentifier(current->identifier());
  KLV_INFO("Updating user info");
  KLV_DEBUG("Updating old user info: {} with new user info: {}", stored->customInfo(), current->customInfo());
  for (const auto& [key, value] : KLVUtilities::dictionaryByRemovingNulls(current->customInfo())) {
    stored->setCustomInfo(value, key);
  }
  stored->setDelegate(this);
  {
    const Lock lock(mutex_);
    components_.user = stored;
  }
  saveUserInfo();
}

void KLVController::stepC() {
  std::vector<BufferedAttributes> calls;
  {
    const Lock lock(mutex_);
    gate_.openDatabase();
    calls = gate_.takeAttributes();
    // Submitted with the lock held, so that later events are stored after the buffered ones.
    persistEvents(gate_.takeEvents());
  }
  Array descriptions;
  for (const BufferedAttributes& call : calls) {
    descriptions.append(Dictionary{{"type", call.isUser ? "user" : "session"}, {"info", call.attributes}});
  }
  KLV_DEBUG("Persisting info buffer: {}", descriptions);
  const auto currentUser = user();
  const auto currentSession = session();
  for (const BufferedAttributes& call : calls) {
    for (const auto& [key, value] : call.attributes) {
      call.isUser ? currentUser->setCustomInfo(value, key) : currentSession->setCustomInfo(value, key);
    }
  }
}

void KLVController::persistEvents(const std::vector<std::shared_ptr<KLVEvent>>& events) {
  KLV_DEBUG("Persisting events buffer: {}", names(events));
  for (const auto& event : events) {
    const bool counts = event->eventType() == KLVEventType::app || event->eventType() == KLVEventType::client;
    if (counts) components_.dataHandler->upsertLifetimeEvent(event);
    components_.dataHandler->saveEventInfo(event, components_.session->identifier());
  }
}

void KLVController::stayTerminated() {
  terminateSDK();
  finishStartUp();
}

void KLVController::finishStartUp() {
  const Lock lock(mutex_);
  gate_.finishStartUp();
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
  defaults.remove(kKLVLegacyEnableSDKKey);  // Kept: the value is not copied into the file.
  return enabled;
}

void KLVController::setupLoggerLevel() {
  const auto configuration = locked(&KLVComponents::configManager)->configDetails().value_or(Dictionary());
  if (!configuration.contains("log_level")) return;
  const Value& level = configuration["log_level"];
  if (level == Value("debug")) {
    KLVLogger::setLogLevel(KLVLogger::Level::debug);
    KLV_INFO("Changed Log level to: {}", level);
  } else if (level == Value("warn")) {
    KLVLogger::setLogLevel(KLVLogger::Level::warn);
    KLV_INFO("Changed Log level to: {}", level);
  } else {
    KLVLogger::setLogLevel(KLVLogger::Level::error);
  }
}

}  // namespace kelvo
