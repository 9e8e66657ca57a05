#include "events/KLVSystemEventsMonitor.h"

#include "platform/Clock.h"
#include "util/KLVLogger.h"
#include "util/KLVTimer.h"

namespace kelvo {
namespace {

Date dateOf(const std::any& reportedAt) {
  const auto* when = std::any_cast<Date>(&reportedAt);
  return when != nullptr ? *when : Clock::now();
}

}  // namespace

void KLVSystemEventsMonitor::start() {
  KLV_DEBUG("Starting Events monitor");
  auto& center = NotificationCenter::defaultCenter();
  const Lock lock(mutex_);
  willResignActive_ = center.observe(kApplicationWillResignActive,
                                     [this](const std::any& when) { applicationWillResignActiveHandler(when); });
  didBecomeActive_ = center.observe(kApplicationDidBecomeActive,
                                    [this](const std::any& when) { applicationDidBecomeActiveHandler(when); });
}

void KLVSystemEventsMonitor::stop() {
  KLV_DEBUG("Stopping Events monitor");
  const Lock lock(mutex_);
  willResignActive_.reset();
  didBecomeActive_.reset();
}

void KLVSystemEventsMonitor::applicationDidBecomeActiveHandler(const std::any& reportedAt) {
  const Date when = dateOf(reportedAt);
  delegate_.updateChunkStartTime(when);
  dispatch(KLVSystemEvent::SubType::foreground, when);
}

void KLVSystemEventsMonitor::applicationWillResignActiveHandler(const std::any& reportedAt) {
  const Date when = dateOf(reportedAt);
  delegate_.updateChunkEndTime(when);
  dispatch(KLVSystemEvent::SubType::background, when);
}

void KLVSystemEventsMonitor::dispatch(KLVSystemEvent::SubType subType, Date when) {
  const auto event = std::make_shared<KLVSystemEvent>(KLVEventType::system, subType);
  event->setCreatedTime(KLVTimer::sharedTimer().timeAt(when));
  delegate_.dispatchEvent(event);
}

}  // namespace kelvo
