#include "core/KLVController.h"

#include "platform/Bundle.h"
#include "platform/Clock.h"
#include "platform/Immortal.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVLogger.h"
#include "util/KLVTimer.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+Dates.h"

namespace kelvo {
namespace {
/// A cut waits this long for the title of the current screen.
constexpr std::chrono::milliseconds kLongestWaitForTitle(1000);

/// Chooses the delivery that the bundle names, if it names one.
void chooseDelivery(const Dictionary& bundle) {
  const Value& name = bundle["KelvoDelivery"];
  if (name.isNull()) return;
  const auto* text = name.get<std::string>();
  const KLVDeliveryRules* rules = text != nullptr ? KLVDeliveryRules::named(*text) : nullptr;
  if (rules == nullptr) KLV_ERROR("KelvoDelivery is neither classic nor complete: {}", name);
  KLVDeliveryRules::choose(rules != nullptr ? *rules : KLVDeliveryRules::classic);
}

}  // namespace

KLVController& KLVController::sharedController() {
  static Immortal<KLVController> instance;
  return *instance;
}

KLVController::KLVController() {
  const Date now = Clock::now();
  KLVTimer::sharedTimer().setSDKStartTime(now);
  components_.foregroundBeforeSession = KLVForegroundTime(now);
  KLVUtilities::initializeDateFormatter();
}

void KLVController::initialize() {
  const Dictionary& bundle = Bundle::main().infoDictionary();
  chooseDelivery(bundle);
  const auto* meta = bundle["Kelvo"].get<Dictionary>();
  if (meta == nullptr) {
    KLV_ERROR("KelvoiOSSDK failed to initialize - invalid Kelvo Meta Info");
    return;
  }
  if (!meta->contains("Core")) {
    KLV_INFO("Ignoring Kelvo SDK auto init");
    return;
  }
  const auto* core = (*meta)["Core"].get<std::string>();
  {
    const Lock lock(mutex_);
    components_.applicationIdentifier =
        core != nullptr ? *core : std::string();  // Kept: the id is stored before it is validated.
  }
  if (core == nullptr || !KLVUtilities::isValidString(*core)) {
    KLV_ERROR("KelvoiOSSDK failed to initialize - invalid appId");
    return;
  }
  KLV_INFO("Initialising Kelvo SDK automatically with ID: {}", *core);
  initializeWithKelvoID(*core);
}

bool KLVController::hasStarted() {
  const Lock lock(mutex_);
  return gate_.startUpHasEnded();
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

void KLVController::waitUntilDelivered() {
  // So that the chunk contains the screen that BACKGROUND ends, unless a busy main loop delays the screen's title.
  if (!navigationMonitor_->waitUntilDispatched(kLongestWaitForTitle)) KLV_DEBUG("Not waiting for a title any longer");
  eventHandler_.waitUntilDelivered();
}

std::shared_ptr<KLVEventListener> KLVController::asListener() {
  return {std::shared_ptr<void>(), this};  // owns nothing: the controller is never destroyed
}

}  // namespace kelvo
