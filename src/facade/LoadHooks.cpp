#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>

#include "core/KLVController.h"
#include "facade/Guard.h"
#include "network/ExitParking.h"
#include "platform/DispatchQueue.h"
#include "platform/ServiceEndpoint.h"
#include "platform/UserDefaults.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

// The exit hook blocks for these times at most.
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
  if (!controller.isSDKInitCalled()) return;
  controller.stopWaitingForMainLoop();
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

void finalizer() {
  guarded([] {
    storeAcceptedWork();
    ExitParking::parkAtExit();
    KLVLogger::drain(kLogLimit);
  });
  std::printf("KelvoiOSSDK finalizer\n");
}

/// Runs when the library is loaded. The log level is set after the automatic start has returned, so that all log lines
/// of that call are written.
__attribute__((constructor)) void SDKInitializer() {
  guarded([] {
    static_cast<void>(ServiceEndpoint::shared());
    KLVController::sharedController().initialize();
  });
  KLVLogger::setLogLevel(KLVLogger::Level::error);
}

__attribute__((constructor)) void registerFinalizer() {
  std::atexit(finalizer);
}

}  // namespace
}  // namespace kelvo

/// Hosts of the static library reference this symbol, so that the linker includes the hooks above.
extern "C" const int kelvo_load_hooks = 1;
