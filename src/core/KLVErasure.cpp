#include "core/KLVErasure.h"

#include <utility>

#include "core/HomeErasure.h"
#include "core/HomeJournal.h"
#include "core/KLVController.h"
#include "core/Readiness.h"
#include "platform/Clock.h"
#include "platform/HomeLock.h"
#include "platform/SwitchedOff.h"
#include "util/KLVLedger.h"
#include "util/KLVLogger.h"
#include "util/KLVTimer.h"

namespace kelvo {
namespace {

/// For a process that must not touch the home of another one.
void leaveToNextLaunch() {
  KLV_WARN("Another process uses the home: the next launch erases its data");
  static_cast<void>(KLVConsentFile::change([](KLVConsentFile& file) { file.isErasing = true; }));
}

}  // namespace

void KLVErasure::begin(bool collectsAfterwards) {
  {
    const Lock lock(controller_.mutex_);
    collectsAfterwards_ = collectsAfterwards;
    controller_.gate_.close();
    controller_.heldCalls_.close();
    if (std::exchange(isUnderWay_, true)) return;
    ++generation_;
  }
  queue_.async([this] { drain(); });
}

void KLVErasure::beginGeneration() {
  const Date now = Clock::now();
  KLVTimer::sharedTimer().setSDKStartTime(now);
  controller_.components_.foregroundBeforeSession = KLVForegroundTime(now);
  controller_.controllerSerialQueue_.async([this] { controller_.stepA("", {}); });
}

void KLVErasure::whenEnded(std::function<void()> task) {
  {
    const Lock lock(controller_.mutex_);
    if (isUnderWay_) return waiters_.push_back(std::move(task));
  }
  task();
}

std::optional<std::uint64_t> KLVErasure::generation() {
  const Lock lock(controller_.mutex_);
  return isUnderWay_ ? std::nullopt : std::optional(generation_);
}

void KLVErasure::perform(std::uint64_t generation, std::function<void()> work) {
  queue_.async([this, generation, work = std::move(work)] {
    if (this->generation() == generation) work();
  });
}

bool KLVErasure::takeHome() {
  if (!controller_.holdsHome_) controller_.holdsHome_ = !HomeLock::takeOrFindHolder();
  return controller_.holdsHome_;
}

void KLVErasure::drain() {
  const bool isNeedless = HomeErasure::isNeedless();
  if (!isNeedless) KLV_INFO("Erasing all data");
  std::shared_ptr<HomeErasure> home;  // none: there is nothing to erase, or another process has the home
  if (isNeedless) {
    static_cast<void>(KLVConsentFile::change([](KLVConsentFile& file) { file.isErasing = false; }));
  } else if (takeHome()) {
    home = std::make_shared<HomeErasure>();
    home->begin(controller_.applicationIdentifier());
  } else {
    leaveToNextLaunch();
  }
  auto& bus = controller_.eventHandler_;
  const Stage classified = [&bus](auto next) { bus.whenClassified(std::move(next)); };
  const Stage delivered = [&bus](auto next) { bus.whenDelivered(std::move(next)); };
  runStages(std::make_shared<const std::vector<Stage>>(std::vector<Stage>{
      [this](auto next) {
        controller_.postman_.group()->close(std::move(next), [this] { resumeDeletions(); });
        KLVPostman::sharedSession().endClosedGroups();
      },
      [this](auto next) {
        const auto chunks = controller_.locked(&KLVComponents::chunkManager);
        chunks ? chunks->retire(std::move(next)) : next();
      },
      [this](auto next) { controller_.controllerSerialQueue_.async(std::move(next)); },
      classified,
      delivered,
      [this](auto next) { controller_.navigationMonitor_->forget(std::move(next)); },
      classified,
      delivered,
      [this](auto next) { queue_.async([this, next = std::move(next)] { retireComponents(next); }); },
      [this, home, isNeedless](auto) {
        queue_.async([=, this] {
          HomeJournal::erase();
          finish(isNeedless || (home && home->finish()));
        });
      },
  }));
}

void KLVErasure::retireComponents(const std::function<void()>& next) {
  KLVComponents old;
  {
    const Lock files(controller_.rescueMutex_);  // waits for a rescue that is writing files
    const Lock lock(controller_.mutex_);
    std::swap(old, controller_.components_);
    controller_.components_.applicationIdentifier = old.applicationIdentifier;
  }
  if (old.session != nullptr) old.session->stopSession();
  if (old.user != nullptr) old.user->setDelegate(nullptr);
  if (old.chunkManager != nullptr) {
    for (const auto& [type, name] :
         {std::pair(KLVEventType::app, kKLVAppOpened), std::pair(KLVEventType::system, kKLVBackground),
          std::pair(KLVEventType::system, kKLVForeground)}) {
      controller_.deRegisterIdentifer(identifierKey(type, name), old.chunkManager);
    }
  }
  if (old.dataHandler != nullptr) old.earlierHandlers.push_back(old.dataHandler);
  std::vector<Stage> stages;
  for (const auto& handler : old.earlierHandlers) {
    stages.emplace_back([handler](auto done) { handler->retire(std::move(done)); });
  }
  stages.emplace_back([next](auto) { next(); });
  runStages(std::make_shared<const std::vector<Stage>>(std::move(stages)));
}

void KLVErasure::finish(bool isErased) {
  if (isErased) KLVLedger::shared().reset();
  controller_.loadEventsWithConfig(Dictionary());  // no lists
  controller_.postman_.setGroup(std::make_shared<HTTPGroup>());
  std::vector<std::function<void()>> waiters;
  bool isOver = false;
  {
    const Lock lock(controller_.mutex_);
    isOver = !isErased || !collectsAfterwards_ || SwitchedOff::reason();
    isUnderWay_ = false;
    controller_.gate_.reopen();
    if (isOver) {
      controller_.gate_.terminate();
    } else {
      beginGeneration();
    }
    controller_.heldCalls_.open([this](HeldCalls::Calls& calls) {
      for (auto& held : calls) controller_.controllerSerialQueue_.async(std::move(held.call));
    });
    waiters.swap(waiters_);
  }
  if (isOver) controller_.stayTerminated();
  if (!isErased && controller_.holdsHome_) {
    Readiness::shared().set(Readiness::State::failed, "Not everything could be erased: nothing more is collected");
  }
  for (const auto& waiter : waiters) waiter();
}

bool KLVErasure::finishInterrupted() {
  if (!erasesAtStart_.exchange(false) && !KLVConsentFile::read().isErasing) return true;
  if (!takeHome()) {
    leaveToNextLaunch();
    return false;
  }
  HomeErasure home;
  home.begin(controller_.applicationIdentifier());
  return home.finish();
}

void KLVErasure::resumeDeletions() {
  controller_.whenStarted([this] { deletions_.resume(); });
}

void KLVErasure::resume() {
  queue_.async([this] {
    if (takeHome() && finishInterrupted()) deletions_.resume();
  });
}

}  // namespace kelvo
