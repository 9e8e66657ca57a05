#include "records/KLVSession.h"

#include <charconv>
#include <chrono>
#include <string>

#include "platform/Clock.h"
#include "records/KLVDeviceInfo.h"
#include "records/KLVEvents.h"
#include "records/KLVRecordKeys.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVTimer.h"
#include "util/KLVUtilities+Dates.h"
#include "util/KLVUtilities+Device.h"

namespace kelvo {
namespace {

constexpr std::chrono::seconds kLongestAbsence(1800);

/// Returns when the first stretch in the foreground begins.
Date startOf(const std::string& launchType) {
  if (launchType == kKLVRestart && KLVDeliveryRules::current().storesRestartedSessions) return Clock::now();
  // Kept: also for a session that starts later, after a long absence.
  return KLVTimer::sharedTimer().SDKStartTime();
}

}  // namespace

std::shared_ptr<KLVSession> KLVSession::initWithLaunchType(const std::string& launchType, const std::string& deviceId,
                                                           KLVSessionDelegate& delegate) {
  const std::int64_t launchTime = KLVTimer::sharedTimer().currentTimeInMillis();
  auto session = std::make_shared<KLVSession>(std::to_string(launchTime) + "-" + KLVDeviceInfo::namePart(deviceId));
  const Date startTime = startOf(launchType);
  {
    const Lock lock(session->timesMutex_);
    session->foreground_ = KLVForegroundTime(startTime);
  }
  session->setLaunch(launchTime, startTime, launchType, KLVUtilities::isFirstSession());

  session->delegate_ = &delegate;
  delegate.registerForEventWithType(KLVEventType::system, session);
  delegate.registerForEventWithType(KLVEventType::chunk, session);
  delegate.dispatchEvent(std::make_shared<KLVSessionEvent>());
  return session;
}

bool KLVSession::isIdentifier(std::string_view text) {
  const auto dash = text.find_first_not_of("0123456789");
  if (dash == 0 || dash == std::string_view::npos || text[dash] != '-') return false;
  const std::string device(text.substr(dash + 1));
  return !device.empty() && KLVDeviceInfo::namePart(device) == device;
}

std::shared_ptr<KLVSession> KLVSession::rebuiltFromIdentifier(const std::string& identifier) {
  auto session = std::make_shared<KLVSession>(identifier);
  std::int64_t launchTime = 0;  // stays 0 if the id does not begin with a number
  std::from_chars(identifier.data(), identifier.data() + identifier.size(), launchTime);
  const Date launch{std::chrono::duration_cast<Date::duration>(std::chrono::milliseconds(launchTime))};
  session->setLaunch(launchTime, launch, "normal", false);
  return session;
}

void KLVSession::setLaunch(std::int64_t launchTime, Date startTime, std::string_view launchType, bool isFirst) {
  setInfo(launchTime, kKLVLaunchTime);
  setInfo(KLVUtilities::dateKLVStringFromNSDate(startTime), kKLVLaunchTimeString);
  setInfo(isFirst, kKLVIsFirstSession);
  setInfo(std::string(launchType), kKLVLaunchType);
  setInfo(0, kKLVDuration);
  setInfo(false, kKLVIsFatal);
  setInfo("Undefined", kKLVProcessName);
  setInfo(false, kKLVIsBackground);
  setInfo(0, kKLVStartupTime);
}

void KLVSession::setSessionAttribute(Value value, std::string_view key) {
  if (!value.isNull()) setCustomInfo(std::move(value), key);
}

void KLVSession::onEvent(const std::shared_ptr<KLVEvent>& event) {
  if (event->eventType() == KLVEventType::chunk) return onChunkEnded();
  if (event->eventType() == KLVEventType::system && event->identifier() == kKLVForeground) onForeground();
}

void KLVSession::onForeground() {
  KLVSessionDelegate* delegate = delegate_.load();
  if (delegate == nullptr || !absenceWasLong_.exchange(false)) return;
  delegate->startSessionWithLaunchType(std::string(kKLVRestart));
}

void KLVSession::onChunkEnded() {
  if (KLVSessionDelegate* delegate = delegate_.load()) delegate->saveSessionInfoWithIndentifier(identifier());
}

void KLVSession::updateDuration(Date end) {
  using namespace std::chrono;
  const milliseconds sinceEpoch(additionalInfo()[kKLVLaunchTime].asInt64());
  const Date launch(duration_cast<seconds>(sinceEpoch));  // Kept: whole seconds.
  const Lock lock(timesMutex_);
  addToDuration(end - launch);
}

bool KLVSession::updateStartTime(Date when) {
  const Lock lock(timesMutex_);
  const auto absence = foreground_.enter(when);
  const bool isLong = absence && std::chrono::duration_cast<std::chrono::seconds>(*absence) > kLongestAbsence;
  if (isLong) absenceWasLong_ = true;
  return isLong;
}

void KLVSession::updateEndTime(Date when) {
  const Lock lock(timesMutex_);
  addToDuration(foreground_.leave(when));
}

bool KLVSession::isInBackground() {
  const Lock lock(timesMutex_);
  return foreground_.isInBackground();
}

void KLVSession::continueFrom(const KLVForegroundTime& earlier) {
  const Lock lock(timesMutex_);
  foreground_ = earlier;
  if (earlier.total().count() > 0) addToDuration(earlier.total());
}

/// The mutex makes reading and writing the sum one step.
void KLVSession::addToDuration(KLVForegroundTime::Seconds seconds) {
  setInfo(additionalInfo()[kKLVDuration].asDouble() + seconds.count(), kKLVDuration);
}

void KLVSession::markSessionAsFatal() {
  setInfo(true, kKLVIsFatal);
}

void KLVSession::stopSession() {
  // Kept: the bus does not remove a listener that is registered by type only. Without a delegate, `onEvent` does
  // nothing.
  KLVSessionDelegate* delegate = delegate_.exchange(nullptr);
  if (delegate == nullptr) return;
  const auto self = shared_from_this();
  delegate->deRegisterIdentifer(identifierKey(KLVEventType::system, kKLVBackground), self);
  delegate->deregisterForEventWithType(KLVEventType::chunk, self);
}

}  // namespace kelvo
