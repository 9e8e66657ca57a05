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

/// The controller of this process, against a collector in it.
class CoreTest : public testing::Test {
 protected:
  CoreTest() {
    service.start();
    setenv("KELVO_SERVER_BASE_URL", service.baseURL().c_str(), 1);
  }
  static KLVController& controller() { return KLVController::sharedController(); }
  static void start() {
    controller().initializeWithKelvoID("shop");
    while (!controller().hasStarted()) std::this_thread::sleep_for(1ms);
  }
  /// Waits for what was begun: until it is stored, and what is cut posted.
  static void settle() {
    std::promise<void> done;
    controller().whenPosted([&] { done.set_value(); });
    done.get_future().wait();
  }

  collector::Server service;
  const LogCapture log;
};

}  // namespace kelvo::test
