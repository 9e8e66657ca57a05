#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace kelvo::test {

/// Polls until `condition` is true. Returns false if it is still false after a minute.
inline bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

}  // namespace kelvo::test
