#include <cstdio>
#include <cstdlib>

#include "core/HostSettings.h"
#include "core/KLVController.h"
#include "facade/ExitWork.h"
#include "facade/Guard.h"
#include "platform/Privileges.h"
#include "platform/ServiceEndpoint.h"
#include "platform/Thread.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

void finalizer() {
  finishAtExit();
  if (HostSettings::shared().saysFarewell() && !SwitchedOff::reason()) std::printf("KelvoiOSSDK finalizer\n");
}

/// Runs before all other initialisers of the library, because one may log.
__attribute__((constructor(101))) void needNoThreads() {
  holdThreads();
}

/// Runs when the library is loaded. The log level is set after the automatic start has returned, so that all log lines
/// of that call are written.
__attribute__((constructor)) void SDKInitializer() {
  guardedAlways([] {
    if (!actsForAnotherUser()) static_cast<void>(ServiceEndpoint::shared());
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
