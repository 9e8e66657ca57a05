#include "upload/KLVChunkManager.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "records/KLVEvents.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVHostLimits.h"
#include "util/KLVLogger.h"
#include "util/KLVTimer.h"

namespace kelvo {
namespace {

constexpr double kDefaultIntervalSeconds = 30;
constexpr double kShortestIntervalSeconds = 1;

}  // namespace

std::shared_ptr<KLVChunkManager> KLVChunkManager::initWithConfiguration(const std::optional<Dictionary>& configuration,
                                                                        KLVChunkManagerDelegate& delegate) {
  KLV_DEBUG("Init chunk manager with config: {}", configuration);
  auto manager = std::make_shared<KLVChunkManager>(delegate);
  manager->sender_.start(
      manager->weak_from_this(),
      [self = manager.get()](const KLVChunkRow& chunk) {
        self->queue_.assertCurrent();
        self->onSettled(chunk);
      },
      [self = manager.get()] {
        self->queue_.assertCurrent();
        if (std::exchange(self->isBeyondLimit_, false)) self->checkLimits();
      });
  manager->registerForChunkCreationWithInterval(intervalIn(configuration));
  manager->watchGrowth();
  return manager;
}

double KLVChunkManager::intervalIn(const std::optional<Dictionary>& configuration) {
  const double seconds = configuration ? (*configuration)["max_fg_chunk_send_time"].asDouble() : 0;
  if (seconds == 0) return kDefaultIntervalSeconds;
  if (seconds > 0 && std::isfinite(seconds)) return std::max(seconds, kShortestIntervalSeconds);
  KLV_WARN("max_fg_chunk_send_time is {}: chunks are cut every {} seconds", seconds, kDefaultIntervalSeconds);
  return kDefaultIntervalSeconds;
}

KLVChunkManager::KLVChunkManager(KLVChunkManagerDelegate& delegate)
    : delegate_(delegate),
      sender_(delegate, queue_),
      currentSessionIdentifier_(delegate.session() ? delegate.session()->identifier() : "") {}

void KLVChunkManager::registerForChunkCreationWithInterval(double seconds) {
  delegate_.registerIdentifer(identifierKey(KLVEventType::app, kKLVAppOpened), shared_from_this());
  delegate_.registerIdentifer(identifierKey(KLVEventType::system, kKLVBackground), shared_from_this());
  if (KLVDeliveryRules::current().resendsWhileRunning) {
    delegate_.registerIdentifer(identifierKey(KLVEventType::system, kKLVForeground), shared_from_this());
  }
  KLVTimer::sharedTimer().registerForTimerNotificationWithInterval(seconds, [weak = weak_from_this()] {
    if (const auto manager = weak.lock()) manager->sendCurrentChunk();
  });
}

void KLVChunkManager::onEvent(const std::shared_ptr<KLVEvent>& event) {
  if (event->eventType() == KLVEventType::app && event->identifier() == kKLVAppOpened) {
    flushPreviousChunks();
  } else if (event->eventType() == KLVEventType::system && event->identifier() == kKLVBackground) {
    sendCurrentChunk();
  } else if (event->eventType() == KLVEventType::system && event->identifier() == kKLVForeground) {
    perform([this] { sender_.resendWaiting(); });
  }
}

void KLVChunkManager::perform(std::function<void()> work) {
  queue_.async([self = shared_from_this(), work = std::move(work)] {
    self->queue_.assertCurrent();
    if (!self->isRetired_) work();
  });
}

void KLVChunkManager::sendCurrentChunk() {
  perform([this] {
    queue_.assertCurrent();
    flushAgainIfDue();
    enforceLimits();
    const Cut cut = cutCurrentSession();  // the next trigger retries a failed cut
    delegate_.tidy(cut == Cut::nothing);
  });
}

void KLVChunkManager::deliverNow(bool waits, std::function<void(bool isCut)> done) {
  queue_.async([self = shared_from_this(), waits, done = std::move(done)]() mutable {
    self->queue_.assertCurrent();
    if (self->isRetired_) return done(false);
    self->flushAgainIfDue();
    self->enforceLimits();
    const bool isCut = self->cutCurrentSession() != Cut::failed;
    self->sender_.resendNow();
    if (!waits || !isCut) return done(isCut);
    self->whenSettled(std::move(done));
  });
}

void KLVChunkManager::whenSettled(std::function<void(bool isCut)> done) {
  sender_.whenSettled([this, done = std::move(done)]() mutable {
    queue_.assertCurrent();
    if (isRetired_) return done(false);
    // Counts that changed while a chunk was under way follow in a chunk of their own.
    const Cut cut = cutAggregates(currentSessionIdentifier_, current_);
    if (cut == Cut::made) return whenSettled(std::move(done));
    done(cut != Cut::failed);
  });
}

void KLVChunkManager::flushPreviousChunks() {
  perform([this] {
    queue_.assertCurrent();
    {
      // Chunks beyond the age of stored data are deleted before they can be posted.
      const auto held = KLVHostLimits::current().mostStoredDays > 0 ? sender_.hold() : nullptr;
      flush();
      enforceLimits();
    }
    delegate_.tidy(false);
    sender_.resendWaiting();
  });
}

void KLVChunkManager::followSession() {
  perform([this] {
    queue_.assertCurrent();
    // Asked now, not by the caller: meanwhile this session may have ended, too, and then it is an earlier one.
    const auto session = delegate_.session();
    if (session == nullptr || session->identifier() == currentSessionIdentifier_) return;
    delegate_.waitUntilDelivered();  // then all events of the session so far are stored
    ended_[currentSessionIdentifier_] = std::exchange(current_, {});
    currentSessionIdentifier_ = session->identifier();
    flush();
    sender_.resendWaiting();
  });
}

KLVChunkManager::Cut KLVChunkManager::cutCurrentSession() {
  delegate_.dispatchEvent(std::make_shared<KLVChunkEvent>());
  delegate_.waitUntilDelivered();  // then the session has saved itself, and the chunk carries its latest duration
  return cutToEnd(currentSessionIdentifier_, current_);
}

void KLVChunkManager::retire(std::function<void()> done) {
  queue_.async([self = shared_from_this(), done = std::move(done)] {
    self->queue_.assertCurrent();
    self->isRetired_ = true;
    self->sender_.retire();
    done();
  });
}

void KLVChunkManager::whenPosted(std::function<void()> done) {
  queue_.async(
      [self = shared_from_this(), done = std::move(done)]() mutable { self->sender_.whenPosted(std::move(done)); });
}

}  // namespace kelvo
