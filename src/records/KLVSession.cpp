#include "records/KLVSession.h"

#include <chrono>

#include "platform/Clock.h"
#include "records/KLVEvents.h"
#include "records/KLVRecordKeys.h"
#include "util/KLVTimer.h"
#include "util/KLVUtilities+Dates.h"
#include "util/KLVUtilities+Device.h"

namespace kelvo {
namespace {

constexpr std::chrono::seconds kLongestAbsence(1800);

double secondsBetween(Date start, Date end) {
  return std::chrono::duration<double>(end - start).count();
}

}  // namespace

std::shared_ptr<KLVSession> KLVSession::initWithLaunchType(const std::string& launchType, const std::string& deviceId,
                                                           KLVSessionDelegate& delegate) {
  const std::int64_t launchTime = KLVTimer::sharedTimer().currentTimeInMillis();
  auto session = std::make_shared<KLVSession>(std::to_string(launchTime) + "-" + deviceId);
  // Kept: the time of the SDK start, also for a session that starts later, after a long absence.
  const Date startTime = KLVTimer::sharedTimer().SDKStartTime();
  {
    const Lock lock(session->timesMutex_);
    session->startTime_ = startTime;
  }
  session->setInfo(launchTime, kKLVLaunchTime);
  session->setInfo(KLVUtilities::dateKLVStringFromNSDate(startTime), kKLVLaunchTimeString);
  session->setInfo(KLVUtilities::isFirstSession(), kKLVIsFirstSession);
  session->setInfo(launchType, kKLVLaunchType);
  session->setInfo(0, kKLVDuration);
  session->setInfo(false, kKLVIsFatal);
  session->setInfo("Undefined", kKLVProcessName);
  session->setInfo(false, kKLVIsBackground);
  session->setInfo(0, kKLVStartupTime);

  session->delegate_ = &delegate;
  delegate.registerForEventWithType(KLVEventType::system, session);
  delegate.registerForEventWithType(KLVEventType::chunk, session);
  delegate.dispatchEvent(std::make_shared<KLVSessionEvent>());
  return session;
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
  if (delegate == nullptr) return;
  const Date now = Clock::now();
  std::optional<Date> left;
  {
    const Lock lock(timesMutex_);
    startTime_ = now;
    left = endTime_;
  }
  if (left && std::chrono::duration_cast<std::chrono::seconds>(now - *left) > kLongestAbsence) {
    delegate->startSessionWithLaunchType("restart");
  }
}

void KLVSession::onChunkEnded() {
  if (KLVSessionDelegate* delegate = delegate_.load()) delegate->saveSessionInfoWithIndentifier(identifier());
}

void KLVSession::updateDuration(Date end) {
  using namespace std::chrono;
  const milliseconds sinceEpoch(additionalInfo()[kKLVLaunchTime].asInt64());
  const Date launch(duration_cast<seconds>(sinceEpoch));  // Kept: whole seconds.
  const Lock lock(timesMutex_);
  addToDuration(secondsBetween(launch, end));
}

void KLVSession::updateEndTime() {
  const Lock lock(timesMutex_);
  endTime_ = Clock::now();
  addToDuration(secondsBetween(startTime_, *endTime_));
}

/// The mutex makes reading and writing the sum one step.
void KLVSession::addToDuration(double seconds) {
  setInfo(additionalInfo()[kKLVDuration].asDouble() + seconds, kKLVDuration);
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
