#include <algorithm>
#include <utility>

#include "core/HomeJournal.h"
#include "core/KLVController.h"
#include "platform/Clock.h"
#include "platform/UserDefaults.h"
#include "records/KLVRecordKeys.h"
#include "util/KLVDefaultsKeys.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVLogger.h"
#include "util/KLVServicePaths.h"
#include "util/KLVUtilities+Dates.h"

namespace kelvo {
namespace {

constexpr std::int64_t kHoursPerDay = 24;

void incrementLifetimeSessionCount(std::int64_t count) {
  KLV_DEBUG("Increasing lifetime session count: {}", count);
  UserDefaults::standard().set(kKLVSessionCountKey, count + 1);
}

}  // namespace

void KLVController::onEvent(const std::shared_ptr<KLVEvent>& event) {
  if (event == nullptr) {
    KLV_WARN("Event is nil");
  } else if (event->eventType() == KLVEventType::app && event->identifier() == kKLVAppOpened) {
    static_cast<void>(storeRescuedEvents());
  } else if (event->eventType() == KLVEventType::system && event->identifier() == kKLVBackground) {
    rescue();
  }
}

void KLVController::startSessionWithLaunchType(const std::optional<std::string>& launchType) {
  KLV_DEBUG("Starting session with launch type: {}", launchType);
  if (!launchType) {
    KLV_WARN("launchType is nil");
    return;
  }
  std::shared_ptr<KLVSession> earlier;
  std::shared_ptr<KLVDataHandler> before;
  {
    const Lock lock(mutex_);
    earlier = components_.session;
    before = components_.dataHandler;
    if (earlier != nullptr && !gate_.databaseExists()) return;  // a session is replaced once its store is open
    if (gate_.isClosed()) return;
  }
  if (earlier != nullptr) {
    earlier->stopSession();
    before->saveSessionInfo(earlier, earlier->identifier());
  }
  const auto device = deviceInfo();
  const auto started = KLVSession::initWithLaunchType(*launchType, device ? device->identifier() : "", *this);
  const bool isWhole = before != nullptr && KLVDeliveryRules::current().storesRestartedSessions;
  // Kept: otherwise only the data handler of the first session is ever started. The later ones write files, but no
  // events.
  const auto handler = isWhole ? std::make_shared<KLVDataHandler>(started->identifier(), *before)
                               : std::make_shared<KLVDataHandler>(started->identifier());
  std::shared_ptr<KLVChunkManager> chunks;
  {
    const Lock lock(mutex_);
    if (earlier == nullptr) started->continueFrom(components_.foregroundBeforeSession);
    if (gate_.isClosed()) return started->stopSession();  // an erasure has begun
    if (before != nullptr && !isWhole) components_.earlierHandlers.push_back(before);
    components_.session = started;
    components_.dataHandler = handler;
    chunks = components_.chunkManager;
  }
  HomeJournal::enter(started->identifier());
  handler->saveSessionInfo(started, started->identifier());
  if (isWhole && chunks != nullptr) chunks->followSession();
  incrementLifetimeSessionCount(getLifetimeSessionCount());
}

void KLVController::updateChunkStartTime(Date when) {
  std::shared_ptr<KLVSession> running;
  {
    const Lock lock(mutex_);
    running = components_.session;
    if (running == nullptr) components_.foregroundBeforeSession.enter(when);
  }
  if (running == nullptr || !running->updateStartTime(when)) return;
  if (!KLVDeliveryRules::current().storesRestartedSessions) return;  // FOREGROUND restarts the session
  // The session restarts before FOREGROUND is dispatched, so that FOREGROUND belongs to the new one. All earlier events
  // belong to the session that ends, also the screen that its BACKGROUND dispatched.
  eventHandler_.waitUntilDelivered();
  waitUntilDelivered();
  startSessionWithLaunchType(std::string(kKLVRestart));
  session()->updateStartTime(when);
}

void KLVController::updateChunkEndTime(Date when) {
  controllerSerialQueue_.sync([this, when] {
    std::shared_ptr<KLVSession> running;
    {
      const Lock lock(mutex_);
      running = components_.session;
      if (running == nullptr) components_.foregroundBeforeSession.leave(when);
    }
    if (running != nullptr) running->updateEndTime(when);
  });
}

std::int64_t KLVController::getLifetimeSessionCount() {
  return UserDefaults::standard().integer(kKLVSessionCountKey);
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
  postDataToURL(std::string(kKLVSDKUserInfoURL) + applicationIdentifier(), body,
                Dictionary{{std::string(kKLVEraseHeader), KLVDeviceInfo::eraseSecret()}}, completion);
}

void KLVController::saveSessionInfoWithIndentifier(const std::optional<std::string>& identifier) {
  if (!identifier) {
    KLV_WARN("session identifier is nil");
    return;
  }
  if (const auto handler = dataHandler()) handler->saveSessionInfo(session(), *identifier);
}

void KLVController::saveUserInfo(KLVWaitingCalls calls) {
  std::shared_ptr<KLVDataHandler> handler;
  std::shared_ptr<KLVUser> merged;
  {
    const Lock lock(mutex_);
    if (!gate_.recordsExist()) return;  // the stored user is not merged yet, and must not be overwritten
    handler = components_.dataHandler;
    merged = components_.user;
  }
  handler->saveUserInfo(merged, std::move(calls));
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
    gate_.terminate(holdsHome_ ? KLVLedgerEntry::refusedDisabled : KLVLedgerEntry::refusedTerminated);
  }
  systemEventMonitor_.stop();
  navigationMonitor_->stop();
  deRegisterIdentifer(identifierKey(KLVEventType::app, kKLVAppOpened), asListener());
  deRegisterIdentifer(identifierKey(KLVEventType::system, kKLVBackground), asListener());
  KLV_INFO("Terminating Kelvo SDK");
}

}  // namespace kelvo
