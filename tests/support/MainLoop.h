#pragma once

#include <future>
#include <utility>

#include "platform/MainQueue.h"

namespace kelvo::test {

/// Runs `task` on the main loop and blocks until it has run. Must not be called on the main loop.
inline void runOnMainLoop(MainQueue::Task task) {
  std::promise<void> done;
  MainQueue::async([&] {
    task();
    done.set_value();
  });
  done.get_future().wait();
}

/// Blocks until the main loop has run all tasks submitted earlier.
inline void waitForMainLoop() {
  runOnMainLoop([] {});
}

}  // namespace kelvo::test
