#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <thread>

#include "core/KLVController.h"
#include "kelvo-collector/http/Server.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"

namespace kelvo::test {

using namespace std::chrono_literals;

/// Runs the controller of this process against a collector in the same process.
class CoreTest : public testing::Test {
 protected:
  CoreTest() {
    service.start();
    setenv("KELVO_SERVER_BASE_URL", service.baseURL().c_str(), 1);
  }
  static KLVController& controller() { return KLVController::sharedController(); }
  /// The controller as the chunk manager calls it.
  static KLVChunkManagerDelegate& chunkDelegate() { return controller(); }
  /// Starts the library, and blocks until the session exists, unless collection is disabled.
  static void start() {
    controller().initializeWithKelvoID("shop");
    while (!controller().hasStarted()) std::this_thread::sleep_for(1ms);
    settle();
  }
  /// Blocks until the data of all earlier calls is stored and the chunks cut so far are posted.
  static void settle() {
    std::promise<void> done;
    controller().whenPosted([&] { done.set_value(); });
    done.get_future().wait();
  }

  collector::Server service;
  const LogCapture log;
};

}  // namespace kelvo::test
