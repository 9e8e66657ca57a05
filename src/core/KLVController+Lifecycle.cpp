#include <algorithm>
#include <utility>

#include "core/KLVController.h"
#include "platform/Clock.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/JSON.h"
#include "platform/UserDefaults.h"
#include "records/KLVFileNames.h"
#include "records/KLVRecordKeys.h"
#include "util/KLVDefaultsKeys.h"
#include "util/KLVException.h"
#include "util/KLVLogger.h"
#include "util/KLVServicePaths.h"
#include "util/KLVUtilities+Dates.h"
#include "util/KLVUtilities+JSON.h"

namespace kelvo {
namespace {

constexpr std::int64_t kHoursPerDay = 24;

/// Returns `forms` and the storage forms of `events` as one JSON array. Leaves out an event whose attributes cannot be
/// cleaned, with one ERROR line.
std::optional<std::string> storageForms(const std::vector<std::shared_ptr<KLVEvent>>& events, Array forms = {}) {
  for (const auto& event : events) {
    try {
      forms.append(event->jsonDict());
    } catch (const KLVInvalidArgument& fault) {
      KLV_ERROR("{}", fault.what());
    }
  }
  return KLVUtilities::jsonStringFromNSArray(forms);
}

/// Writes `content` to `file` in the Library directory. Blocks on the disk. Kept: does not report a failed write.
void rescue(const std::optional<std::string>& content, std::string_view file) {
  if (content) static_cast<void>(writeFileAtomically(Directories::inLibrary(file), *content));
}

}  // namespace

void KLVController::onEvent(const std::shared_ptr<KLVEvent>& event) {
  if (event == nullptr) {
    KLV_WARN("Event is nil");
  } else if (event->eventType() == KLVEventType::app && event->identifier() == kKLVAppOpened) {
    onAppOpened();
  } else if (event->eventType() == KLVEventType::system && event->identifier() == kKLVBackground) {
    onBackground();
  }
}

void KLVController::onAppOpened() {
  const auto handler = dataHandler();
  if (handler == nullptr) return;
  const auto saved = handler->getEventsInfo();
  const auto* rescued = saved ? saved->get<Array>() : nullptr;
  if (rescued == nullptr || rescued->empty()) return;
  std::vector<std::shared_ptr<KLVEvent>> events;
  for (const Value& form : *rescued) {
    if (const auto* dictionary = form.get<Dictionary>()) events.push_back(objectFromJsonDict<KLVEvent>(*dictionary));
  }
  {
    const Lock lock(mutex_);
    for (const auto& event : events) gate_.bufferEvent(event);
    // Nothing empties the buffer again once the database is ready, so these events are stored here.
    if (gate_.databaseExists()) persistEvents(gate_.takeEvents());
  }
  handler->deleteItemAtPath(std::string(kKLVEventsBuffer));
}

void KLVController::onBackground() {
  std::vector<std::shared_ptr<KLVEvent>> events;
  std::vector<BufferedAttributes> calls;
  {
    const Lock lock(mutex_);
    if (gate_.databaseExists()) return;
    events = gate_.takeEvents();
    calls = gate_.takeAttributes();
  }
  if (!events.empty()) rescue(storageForms(events), kKLVEventsBuffer);
  for (const BufferedAttributes& call : calls) {
    // Kept: a later call for the user overwrites an earlier one, and the attributes of the session are dropped.
    if (call.isUser) rescue(KLVUtilities::jsonDataFromNSDictionary(call.attributes), kKLVUserDB);
  }
}

void KLVController::rescueEvents() {
  std::vector<std::shared_ptr<KLVEvent>> events;
  {
    const Lock lock(mutex_);
    if (gate_.databaseExists()) return;
    events = gate_.takeEvents();
  }
  if (events.empty()) return;
  // The buffer holds an application event twice in a row; the file gets it once.
  events.erase(std::unique(events.begin(), events.end()), events.end());
  const auto text = readFile(Directories::inLibrary(kKLVEventsBuffer));
  const auto earlier = text ? parseJSON(*text) : std::nullopt;
  const auto* forms = earlier ? earlier->get<Array>() : nullptr;
  rescue(storageForms(events, forms != nullptr ? *forms : Array()), kKLVEventsBuffer);
}

void KLVController::startSessionWithLaunchType(const std::optional<std::string>& launchType) {
  KLV_DEBUG("Starting session with launch type: {}", launchType);
  if (!launchType) {
    KLV_WARN("launchType is nil");
    return;
  }
  if (const auto running = session()) running->stopSession();
  const auto device = deviceInfo();
  const auto started = KLVSession::initWithLaunchType(*launchType, device ? device->identifier() : "", *this);
  const auto handler = std::make_shared<KLVDataHandler>(started->identifier());
  {
    const Lock lock(mutex_);
    components_.session = started;
    // Kept: only the data handler of the first session is ever started. The later ones write files, but no events.
    components_.dataHandler = handler;
  }
  handler->saveSessionInfo(started, started->identifier());
  incrementLifetimeSessionCount();
}

void KLVController::updateChunkEndTime() {
  controllerSerialQueue_.sync([this] {
    if (const auto running = session()) running->updateEndTime();
  });
}

std::int64_t KLVController::getLifetimeSessionCount() {
  return UserDefaults::standard().integer(kKLVSessionCountKey);
}

void KLVController::incrementLifetimeSessionCount() {
  const std::int64_t count = getLifetimeSessionCount();
  KLV_DEBUG("Increasing lifetime session count: {}", count);
  UserDefaults::standard().set(kKLVSessionCountKey, count + 1);
}

std::int64_t KLVController::getRetentionDay() {
  return UserDefaults::standard().integer(kKLVRetentionDayCountKey);
}

void KLVController::updateRetentionDayCount() {
  auto& defaults = UserDefaults::standard();
  const auto text = defaults.string(kKLVRetentionDayKey);
  const auto first = KLVUtilities::dateFromKLVDateString(text);
  KLV_DEBUG("Retention date for evaluation: {}", first ? text : std::nullopt);
  const Date now = Clock::now();
  if (!first) {
    defaults.set(kKLVRetentionDayKey, KLVUtilities::dateKLVStringFromNSDate(now));
  } else if (const auto hours = std::chrono::duration_cast<std::chrono::hours>(now - *first).count();
             hours >= kHoursPerDay) {
    // Kept: every launch adds the whole days since the first evaluation again.
    const std::int64_t count = getRetentionDay() + hours / kHoursPerDay;
    defaults.set(kKLVRetentionDayCountKey, count);
    KLV_DEBUG("Increasing retention day count: {}", count);
  }
  defaults.synchronize();
}

void KLVController::sendUserInfo() {
  const auto form = [](const auto& record) { return record ? Value(record->jsonDictModified()) : Value(); };
  const auto currentUser = user();
  const Dictionary body{
      {std::string(kKLVSDKVersionKey), std::to_string(static_cast<int>(kKLVSDKVersion))},
      {std::string(kKLVBodyAppInfo), form(appInfo())},
      {std::string(kKLVBodyDeviceInfo), form(deviceInfo())},
      {std::string(kKLVBodyUserAttributes), currentUser ? currentUser->userAttributes() : Dictionary()}};
  KLV_DEBUG("Sending user info: {}", body);
  const auto completion = [](const auto&, const auto& response, const auto& error) {
    if (error) {
      KLV_ERROR("Cound not send user info: {}", error->localizedDescription);
    } else if (succeeded(response, error)) {
      KLV_DEBUG("Send user info response: {}", response->description());
    }
  };
  postDataToURL(std::string(kKLVSDKUserInfoURL) + applicationIdentifier(), body, std::nullopt, completion);
}

void KLVController::saveSessionInfoWithIndentifier(const std::optional<std::string>& identifier) {
  if (!identifier) {
    KLV_WARN("session identifier is nil");
    return;
  }
  if (const auto handler = dataHandler()) handler->saveSessionInfo(session(), *identifier);
}

void KLVController::saveUserInfo() {
  if (const auto handler = dataHandler()) handler->saveUserInfo(user());
}

void KLVController::markFatalAndUpdateDuration(std::optional<Date> duration,
                                               const std::optional<std::string>& sessionId) {
  if (!duration || !sessionId) KLV_WARN("duration/identifier is nil");
  if (!sessionId) return;  // no session has a nil id
  const auto running = session();
  if (running != nullptr && running->identifier() == *sessionId) {
    running->markSessionAsFatal();
    if (duration) running->updateDuration(*duration);
    return;
  }
  const auto handler = dataHandler();
  const auto stored = handler ? handler->retrieveSessionInfoWithIdentifier(*sessionId) : nullptr;
  if (stored == nullptr) return;
  stored->markSessionAsFatal();
  if (duration) stored->updateDuration(*duration);
  handler->saveSessionInfo(stored, *sessionId);
}

void KLVController::terminateSDK() {
  {
    const Lock lock(mutex_);
    gate_.terminate();
  }
  systemEventMonitor_.stop();
  navigationMonitor_->stop();
  deRegisterIdentifer(identifierKey(KLVEventType::app, kKLVAppOpened), asListener());
  deRegisterIdentifer(identifierKey(KLVEventType::system, kKLVBackground), asListener());
  KLV_INFO("Terminating Kelvo SDK");
}

}  // namespace kelvo
