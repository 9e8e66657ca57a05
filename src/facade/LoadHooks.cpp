#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>

#include "core/KLVController.h"
#include "facade/Guard.h"
#include "network/ExitParking.h"
#include "platform/ServiceEndpoint.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

constexpr std::chrono::milliseconds kStoreLimit(500);
constexpr std::chrono::milliseconds kLogLimit(250);

/// Lets what was accepted reach the database. The queues go on running at exit: nothing of the library is destroyed.
void storeAcceptedWork() {
  auto& controller = KLVController::sharedController();
  if (!controller.isSDKInitCalled()) return;
  controller.stopWaitingForMainLoop();
  const auto stored = std::make_shared<std::promise<void>>();
  controller.whenStored([stored] { stored->set_value(); });
  stored->get_future().wait_for(kStoreLimit);
  controller.rescueEvents();
}

void finalizer() {
  guarded([] {
    storeAcceptedWork();
    ExitParking::parkAtExit();
    KLVLogger::drain(kLogLimit);
  });
  std::printf("KelvoiOSSDK finalizer\n");
}

/// The image initializers, in this order. The log level is set only after the automatic start has returned, so the
/// lines that it writes at once are let through at every level.
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

/// Hosts of the static library ask the linker for this symbol, so that the hooks above are linked in.
extern "C" const int kelvo_load_hooks = 1;
