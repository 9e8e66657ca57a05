#include "core/KLVController.h"

#include "platform/Bundle.h"
#include "platform/Clock.h"
#include "platform/Immortal.h"
#include "util/KLVLogger.h"
#include "util/KLVTimer.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+Dates.h"

namespace kelvo {
namespace {
constexpr std::chrono::milliseconds kLongestWaitForTitle(1000);
}  // namespace

KLVController& KLVController::sharedController() {
  static Immortal<KLVController> instance;
  return *instance;
}

KLVController::KLVController() {
  KLVTimer::sharedTimer().setSDKStartTime(Clock::now());
  KLVUtilities::initializeDateFormatter();
}

void KLVController::initialize() {
  const Dictionary& bundle = Bundle::main().infoDictionary();
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
    const std::lock_guard lock(mutex_);
    applicationIdentifier_ = core != nullptr ? *core : std::string();  // Kept: stored before it is validated.
  }
  if (core == nullptr || !KLVUtilities::isValidString(*core)) {
    KLV_ERROR("KelvoiOSSDK failed to initialize - invalid appId");
    return;
  }
  KLV_INFO("Initialising Kelvo SDK automatically with ID: {}", *core);
  initializeWithKelvoID(*core);
}

void KLVController::performInOrder(std::function<void()> task) {
  controllerSerialQueue_.async(std::move(task));
}

void KLVController::whenStored(std::function<void()> done) {
  // Host calls go to the controller's queue; activity reports go on from there to the monitor, which asks the
  // controller again; both end on the bus, which delivers the latter to the navigation monitor. Its events go to the
  // bus, too, which submits what is to be stored.
  controllerSerialQueue_.async([this, done = std::move(done)]() mutable {
    systemEventMonitor_.whenDispatched([this, done = std::move(done)]() mutable {
      whenDelivered([this, done = std::move(done)]() mutable {
        navigationMonitor_->whenDispatched([this, done = std::move(done)]() mutable {
          eventHandler_.whenClassified([this, done = std::move(done)]() mutable {
            const auto handler = dataHandler();
            handler ? handler->whenStored(std::move(done)) : done();
          });
        });
      });
    });
  });
}

void KLVController::whenPosted(std::function<void()> done) {
  whenStored([this, done = std::move(done)]() mutable {
    whenDelivered([this, done = std::move(done)]() mutable {
      const auto manager = chunkManager();
      manager ? manager->whenPosted(std::move(done)) : done();
    });
  });
}

/// Twice over the bus: the first pass queues the deliveries.
void KLVController::whenDelivered(std::function<void()> done) {
  eventHandler_.whenClassified(
      [this, done = std::move(done)]() mutable { eventHandler_.whenClassified(std::move(done)); });
}

void KLVController::waitUntilDelivered() {
  // The screen that BACKGROUND ends is in the chunk that it cuts, unless a busy main loop keeps its title back.
  if (!navigationMonitor_->waitUntilDispatched(kLongestWaitForTitle)) KLV_DEBUG("Not waiting for a title any longer");
  eventHandler_.waitUntilDelivered();
}

std::shared_ptr<KLVEventListener> KLVController::asListener() {
  return {std::shared_ptr<void>(), this};  // owns nothing: the controller is never destroyed
}

}  // namespace kelvo
