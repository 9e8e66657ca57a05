#include "records/KLVSession.h"

#include <chrono>

#include "platform/Clock.h"
#include "records/KLVEvents.h"
#include "util/KLVTimer.h"
#include "util/KLVUtilities+Dates.h"
#include "util/KLVUtilities+Device.h"

namespace kelvo {
namespace {

constexpr std::chrono::seconds kLongestAbsence(1800);
constexpr std::string_view kLaunchTime = "launch_time";
constexpr std::string_view kDuration = "duration";
constexpr std::string_view kIsFatal = "is_fatal";

double secondsBetween(Date start, Date end) {
  return std::chrono::duration<double>(end - start).count();
}

}  // namespace

std::shared_ptr<KLVSession> KLVSession::initWithLaunchType(const std::string& launchType, const std::string& deviceId,
                                                           KLVSessionDelegate& delegate) {
  const std::int64_t launchTime = KLVTimer::sharedTimer().currentTimeInMillis();
  auto session = std::make_shared<KLVSession>(std::to_string(launchTime) + "-" + deviceId);
  // Kept: also for a session that is started later, after a long absence.
  session->startTime_ = KLVTimer::sharedTimer().SDKStartTime();
  session->setInfo(launchTime, kLaunchTime);
  session->setInfo(KLVUtilities::dateKLVStringFromNSDate(session->startTime_), "launch_time_string");
  session->setInfo(KLVUtilities::isFirstSession(), "is_first_session");
  session->setInfo(launchType, "launch_type");
  session->setInfo(0, kDuration);
  session->setInfo(false, kIsFatal);
  session->setInfo("Undefined", "process_name");
  session->setInfo(false, "is_background");
  session->setInfo(0, "startup_time");

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
    const std::lock_guard lock(timesMutex_);
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
  const Date launch{std::chrono::seconds(additionalInfo()[kLaunchTime].asInt64() / 1000)};
  const std::lock_guard lock(timesMutex_);
  addToDuration(secondsBetween(launch, end));
}

void KLVSession::updateEndTime() {
  const std::lock_guard lock(timesMutex_);
  endTime_ = Clock::now();
  addToDuration(secondsBetween(startTime_, *endTime_));
}

/// Under `timesMutex_`, so that no part of the sum is lost.
void KLVSession::addToDuration(double seconds) {
  setInfo(additionalInfo()[kDuration].asDouble() + seconds, kDuration);
}

void KLVSession::markSessionAsFatal() {
  setInfo(true, kIsFatal);
}

void KLVSession::stopSession() {
  // The bus keeps listeners that are registered by type only; without a delegate their events do nothing here.
  KLVSessionDelegate* delegate = delegate_.exchange(nullptr);
  if (delegate == nullptr) return;
  const auto self = shared_from_this();
  delegate->deRegisterIdentifer(identifierKey(KLVEventType::system, kKLVBackground), self);
  delegate->deregisterForEventWithType(KLVEventType::chunk, self);
}

}  // namespace kelvo
