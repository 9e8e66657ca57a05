#include "core/KLVController.h"

#include "core/HostSettings.h"
#include "network/ExitParking.h"
#include "platform/Bundle.h"
#include "platform/Clock.h"
#include "platform/Privileges.h"
#include "platform/ProcessWide.h"
#include "platform/SwitchedOff.h"
#include "util/KLVLogger.h"
#include "util/KLVTimer.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+Dates.h"

namespace kelvo {
namespace {
/// A cut waits this long for the title of the current screen.
constexpr std::chrono::milliseconds kLongestWaitForTitle(1000);

}  // namespace

KLVController& KLVController::sharedController() {
  static ProcessWide<KLVController> instance;
  return *instance;
}

KLVController::KLVController() {
  const Date now = Clock::now();
  KLVTimer::sharedTimer().setSDKStartTime(now);
  components_.foregroundBeforeSession = KLVForegroundTime(now);
  KLVUtilities::initializeDateFormatter();
  postman_.setGroup(std::make_shared<HTTPGroup>());
}

void KLVController::initialize() {
  if (HostSettings::refusesForeignRights()) return;
  auto& settings = HostSettings::shared();
  const Dictionary& bundle = Bundle::main().infoDictionary();
  settings.applyBundle(bundle);
  const auto* meta = bundle["Kelvo"].get<Dictionary>();
  if (meta == nullptr) {
    return settings.holdLine([] { KLV_ERROR("KelvoiOSSDK failed to initialize - invalid Kelvo Meta Info"); });
  }
  if (!meta->contains("Core")) {
    return settings.holdLine([] { KLV_INFO("Ignoring Kelvo SDK auto init"); });
  }
  const auto* core = (*meta)["Core"].get<std::string>();
  {
    const Lock lock(mutex_);
    components_.applicationIdentifier =
        core != nullptr ? *core : std::string();  // Kept: the id is stored before it is validated.
  }
  if (core == nullptr || !KLVUtilities::isValidString(*core)) {
    return settings.holdLine([] { KLV_ERROR("KelvoiOSSDK failed to initialize - invalid appId"); });
  }
  if (!SwitchedOff::reason()) KLV_INFO("Initialising Kelvo SDK automatically with ID: {}", *core);
  initializeWithKelvoID(*core);
}

bool KLVController::hasStarted() {
  const Lock lock(mutex_);
  return gate_.startUpHasEnded();
}

std::optional<std::string> KLVController::reasonNotToCollect() {
  if (isRefusedForItsRights()) return "the program acts for another user";
  if (const auto& reason = SwitchedOff::reason()) return "Kelvo is switched off on this machine: " + *reason;
  if (ExitParking::shared().isExiting()) return "the process is exiting";
  if (leavesEventsToNextLaunch()) return "another process uses the home, so all events wait for the next launch";
  if (waitsForConsent()) return "the user has not decided about consent yet";
  const auto state = gateState();
  if (state == CollectionGate::State::idle) return "the library has not been started";
  if (consent() == Consent::denied) return "the user has denied consent";
  if (state != CollectionGate::State::terminated) return std::nullopt;
  return hasStarted() && !holdsHome_ ? "another process uses the home" : "collection is disabled";
}

bool KLVController::leavesEventsToNextLaunch() {
  return !holdsHome_ && hasStarted() && gateState() == CollectionGate::State::initialising;
}

CollectionGate::State KLVController::gateState() {
  const Lock lock(mutex_);
  return gate_.state();
}

/// A host call passes the controller's queue, the bus and the data handler. A screen also passes the navigation
/// monitor, whose events pass the bus again.
std::vector<Stage> KLVController::stagesUntilStored() {
  const Stage classified = [this](auto next) { eventHandler_.whenClassified(std::move(next)); };
  return {
      [this](auto next) { erasure_.whenEnded(std::move(next)); },
      [this](auto next) { controllerSerialQueue_.async(std::move(next)); },
      classified,
      classified,  // the bus queues a delivery while it classifies the event
      [this](auto next) { navigationMonitor_->whenDispatched(std::move(next)); },
      classified,
      [this](auto next) {
        const auto handler = dataHandler();
        handler ? handler->whenStored(std::move(next)) : next();
      },
  };
}

void KLVController::whenStored(std::function<void()> done) {
  auto stages = stagesUntilStored();
  stages.emplace_back([done = std::move(done)](auto) { done(); });
  runStages(std::make_shared<const std::vector<Stage>>(std::move(stages)));
}

void KLVController::whenPosted(std::function<void()> done) {
  const Stage classified = [this](auto next) { eventHandler_.whenClassified(std::move(next)); };
  auto stages = stagesUntilStored();
  stages.insert(stages.end(), {classified, classified});
  stages.emplace_back([this](auto next) {
    const auto manager = locked(&KLVComponents::chunkManager);
    manager ? manager->whenPosted(std::move(next)) : next();
  });
  stages.emplace_back([done = std::move(done)](auto) { done(); });
  runStages(std::make_shared<const std::vector<Stage>>(std::move(stages)));
}

void KLVController::deliverNow(bool waits, std::function<void(bool isCut)> done) {
  // The cut waits for the store and, for a limited time, for the titles of screens.
  const Stage classified = [this](auto next) { eventHandler_.whenClassified(std::move(next)); };
  runStages(std::make_shared<const std::vector<Stage>>(std::vector<Stage>{
      [this](auto next) { erasure_.whenEnded(std::move(next)); },
      [this](auto next) { controllerSerialQueue_.async(std::move(next)); },
      classified,
      classified,  // the bus queues a delivery while it classifies the event
      [this, waits, done = std::move(done)](auto) {
        const auto manager = locked(&KLVComponents::chunkManager);
        manager ? manager->deliverNow(waits, done) : done(false);
      },
  }));
}

KLVDeliveryState KLVController::deliveryState() {
  const auto manager = locked(&KLVComponents::chunkManager);
  return manager ? manager->deliveryState() : KLVDeliveryState();
}

void KLVController::waitUntilDelivered() {
  // So that the chunk contains the screen that BACKGROUND ends, unless a busy main loop delays the screen's title.
  const auto limit = isMainLoopBlocked() ? std::chrono::milliseconds(0) : kLongestWaitForTitle;
  if (!navigationMonitor_->waitUntilDispatched(limit)) KLV_DEBUG("Not waiting for a title any longer");
  eventHandler_.waitUntilDelivered();
}

std::shared_ptr<KLVEventListener> KLVController::asListener() {
  return {std::shared_ptr<void>(), this};  // owns nothing: the controller is never destroyed
}

}  // namespace kelvo
