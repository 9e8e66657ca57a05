#include "events/KLVSystemEventsMonitor.h"

#include "platform/Clock.h"
#include "util/KLVLogger.h"
#include "util/KLVTimer.h"

namespace kelvo {
namespace {

KLVActivityReport reportIn(const std::any& info) {
  if (const auto* report = std::any_cast<KLVActivityReport>(&info)) return *report;
  const auto* when = std::any_cast<Date>(&info);
  return {when != nullptr ? *when : Clock::now(), {}};
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

void KLVSystemEventsMonitor::applicationDidBecomeActiveHandler(const std::any& info) {
  const auto report = reportIn(info);
  delegate_.updateChunkStartTime(report.when);
  dispatch(KLVSystemEvent::SubType::foreground, report);
}

void KLVSystemEventsMonitor::applicationWillResignActiveHandler(const std::any& info) {
  const auto report = reportIn(info);
  delegate_.updateChunkEndTime(report.when);
  dispatch(KLVSystemEvent::SubType::background, report);
}

void KLVSystemEventsMonitor::dispatch(KLVSystemEvent::SubType subType, const KLVActivityReport& report) {
  const auto event = std::make_shared<KLVSystemEvent>(KLVEventType::system, subType);
  event->setCreatedTime(KLVTimer::sharedTimer().timeAt(report.when));
  event->setCall(report.call);
  delegate_.dispatchEvent(event);
}

}  // namespace kelvo
