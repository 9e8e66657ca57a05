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

const std::string kConfigHashModule = "sdk_config";

Array names(const std::vector<std::shared_ptr<KLVEvent>>& events) {
  Array all;
  for (const auto& event : events) all.append(event->identifier());
  return all;
}

}  // namespace

void KLVController::initializeWithKelvoID(std::optional<std::string> appId) {
  if (isSDKInitCalled_) {
    KLV_INFO("Kelvo SDK already initialized. Ignoring this call");
    return;
  }
  if (KLVUtilities::isInvalidString(appId)) {
    KLV_ERROR("KelvoiOSSDK failed to initialize - invalid appId: {}", appId);
    return;
  }
  if (isSDKInitCalled_.exchange(true)) {
    KLV_INFO("Kelvo SDK already initialized. Ignoring this call");
    return;
  }
  {
    const std::lock_guard lock(mutex_);
    applicationIdentifier_ = *appId;
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
    const std::lock_guard lock(mutex_);
    deviceInfo_ = deviceInfo;
    if (tokenBuffer_) deviceInfo->logDeviceToken(*tokenBuffer_);
  }
  auto manager = std::make_shared<KLVConfigManager>(*this);
  {
    const std::lock_guard lock(mutex_);
    configManager_ = manager;
  }
  updateConfiguration(serviceHash);
  if (!getEnableSDKState()) {
    enableSDK_ = false;
    return stayTerminated();
  }
  enableSDK_ = true;
  startRecords();
  startSessionWithLaunchType("normal");
  setupLoggerLevel();
  loadClientAndAggregateEvents();
  dataHandler()->startWithCompletionHandler([this] { stepC(); });
  controllerSerialQueue_.sync([this] { mergeStoredUser(); });  // no attribute of the host gets lost between the two
  auto chunks = KLVChunkManager::initWithConfiguration(manager->configDetails(), *this);
  {
    const std::lock_guard lock(mutex_);
    chunkManager_ = std::move(chunks);
  }
  const auto* plugins = Bundle::main().infoDictionary()["Kelvo"].get<Dictionary>();
  pluginManager_.loadPlugins(plugins != nullptr ? std::optional(*plugins) : std::nullopt,
                             manager->configDetails().value_or(Dictionary()));
  sendUserInfo();
  logAppEventWithName(std::string(kKLVAppOpened), Dictionary{{"type", "normal"}}, false, false);
  KLV_INFO("KelvoiOSSDK ({}) : initialized!", fmt::format("{:.0f}", kKLVSDKVersion));
  updateRetentionDayCount();
  hasStarted_ = true;
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
  // Kept: any other status counts as enabled, unlike a transport error.
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
  const auto saved = KLVUtilities::getHashForModule(kConfigHashModule);
  KLV_DEBUG("Saved hash value: {}", saved);
  if (saved && serviceHash && *saved == *serviceHash) {
    KLV_DEBUG("Same hash, no changes in config");
    return;
  }
  KLV_DEBUG("New hash value: {}", serviceHash);
  KLV_INFO("Downloading config ...");
  configManager()->getAndSaveLatestConfigurationWithCompletionHandler([serviceHash] {
    if (serviceHash) KLVUtilities::saveHash(*serviceHash, kConfigHashModule);
  });
}

void KLVController::startRecords() {
  auto appInfo = std::make_shared<KLVAppInfo>("__undefined-appname__");
  auto sdkInfo = std::make_shared<KLVSDKInfo>("__undefined-sdkinfo__");
  auto user = std::make_shared<KLVUser>("__undefined-user__");
  user->setDelegate(this);
  const std::lock_guard lock(mutex_);
  appInfo_ = std::move(appInfo);
  sdkInfo_ = std::move(sdkInfo);
  user_ = std::move(user);
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
    const std::lock_guard lock(mutex_);
    user_ = stored;
  }
  saveUserInfo();
}

void KLVController::stepC() {
  std::vector<std::shared_ptr<KLVEvent>> events;
  std::vector<BufferedInfo> infos;
  {
    const std::lock_guard lock(mutex_);
    dataHandlerStarted_ = true;
    events.swap(eventsBuffer_);
    infos.swap(infoBuffer_);
    // Submitted under the lock, so that events which arrive from now on are stored behind these.
    persistEvents(std::move(events));
  }
  Array descriptions;
  for (const BufferedInfo& entry : infos) {
    descriptions.append(Dictionary{{"type", entry.isUser ? "user" : "session"}, {"info", entry.info}});
  }
  KLV_DEBUG("Persisting info buffer: {}", descriptions);
  const auto currentUser = user();
  const auto currentSession = session();
  for (const BufferedInfo& entry : infos) {
    for (const auto& [key, value] : entry.info) {
      entry.isUser ? currentUser->setCustomInfo(value, key) : currentSession->setCustomInfo(value, key);
    }
  }
}

void KLVController::persistEvents(std::vector<std::shared_ptr<KLVEvent>> events) {
  KLV_DEBUG("Persisting events buffer: {}", names(events));
  for (const auto& event : events) {
    const bool counts = event->eventType() == KLVEventType::app || event->eventType() == KLVEventType::client;
    if (counts) dataHandler_->upsertLifetimeEvent(event);
    dataHandler_->saveEventInfo(event, session_->identifier());
  }
}

void KLVController::stayTerminated() {
  terminateSDK();
  hasStarted_ = true;
}

void KLVController::setAndSaveEnableSDKState(bool enabled) {
  KLV_DEBUG("Setting enable SDK state: {}", enabled);
  enableSDK_ = enabled;
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
  defaults.remove(kKLVLegacyEnableSDKKey);  // Kept: not copied into the file.
  return enabled;
}

void KLVController::setupLoggerLevel() {
  const auto configuration = configManager()->configDetails().value_or(Dictionary());
  if (!configuration.contains("log_level")) return;
  const Value& level = configuration["log_level"];
  if (level == Value("debug")) {
    KLVLogger::setLogLevel(1);
    KLV_INFO("Changed Log level to: {}", level);
  } else if (level == Value("warn")) {
    KLVLogger::setLogLevel(2);
    KLV_INFO("Changed Log level to: {}", level);
  } else {
    KLVLogger::setLogLevel(3);
  }
}

}  // namespace kelvo
