#include "events/KLVSystemEventsMonitor.h"

#include "util/KLVLogger.h"

namespace kelvo {

void KLVSystemEventsMonitor::start() {
  KLV_DEBUG("Starting Events monitor");
  auto& center = NotificationCenter::defaultCenter();
  const Lock lock(mutex_);
  willResignActive_ = center.observe(kApplicationWillResignActive, [this] { applicationWillResignActiveHandler(); });
  didBecomeActive_ = center.observe(kApplicationDidBecomeActive, [this] { applicationDidBecomeActiveHandler(); });
}

void KLVSystemEventsMonitor::stop() {
  KLV_DEBUG("Stopping Events monitor");
  const Lock lock(mutex_);
  willResignActive_.reset();
  didBecomeActive_.reset();
}

void KLVSystemEventsMonitor::applicationDidBecomeActiveHandler() {
  handlerQueue_.async([this] {
    delegate_.dispatchEvent(
        std::make_shared<KLVSystemEvent>(KLVEventType::system, KLVSystemEvent::SubType::foreground));
  });
}

void KLVSystemEventsMonitor::applicationWillResignActiveHandler() {
  handlerQueue_.async([this] {
    delegate_.updateChunkEndTime();
    delegate_.dispatchEvent(
        std::make_shared<KLVSystemEvent>(KLVEventType::system, KLVSystemEvent::SubType::background));
  });
}

}  // namespace kelvo
