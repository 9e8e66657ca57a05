#include "facade/ExitWork.h"

#include <chrono>
#include <future>
#include <memory>

#include "core/HostSettings.h"
#include "core/KLVController.h"
#include "facade/Guard.h"
#include "network/ExitParking.h"
#include "platform/DispatchQueue.h"
#include "platform/FileLimitShield.h"
#include "platform/UserDefaults.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

// The work blocks for these times at most.
constexpr std::chrono::milliseconds kStoreLimit(500);
constexpr std::chrono::milliseconds kLogLimit(250);

/// Calls `done` on a library queue once the user defaults are on the disk.
void flushDefaults(const std::shared_ptr<std::promise<void>>& done) {
  UserDefaults::standard().synchronize();
  done->set_value();
}

/// Blocks until the home holds the data of all accepted calls, or until `kStoreLimit` has passed. The queues still run:
/// no object of the library is destroyed at exit.
void storeAcceptedWork() {
  auto& controller = KLVController::sharedController();
  if (!controller.isSDKInitCalled() || controller.waitsForConsent()) return;
  controller.stopWaitingForMainLoop();
  const FileLimitShield shield;  // the rescue writes files on this thread, which is the host's
  const auto deadline = std::chrono::steady_clock::now() + kStoreLimit;
  const auto flushed = std::make_shared<std::promise<void>>();  // also if the database is locked
  DispatchQueue::global().async([flushed] { flushDefaults(flushed); });
  controller.performInOrder([&controller] { controller.saveRecords(); });
  const auto stored = std::make_shared<std::promise<void>>();
  controller.whenStored([stored] { flushDefaults(stored); });
  stored->get_future().wait_until(deadline);
  flushed->get_future().wait_until(deadline);
  controller.rescue();
}

}  // namespace

void finishAtExit() noexcept {
  guarded([] {
    HostSettings::shared().writeHeldLine();
    storeAcceptedWork();
    KLVPluginLoader::reportMissing();
    ExitParking::parkAtExit();
  });
  guardedAlways([] { KLVLogger::drain(kLogLimit); });
}

}  // namespace kelvo
