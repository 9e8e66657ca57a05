#pragma once

#include <pthread.h>

#include <array>
#include <latch>
#include <memory>
#include <string>

#include "platform/DispatchQueue.h"

namespace kelvo::test {

/// Keeps both pool threads busy, in tasks of one concurrent queue, while it lives.
class BusyPool {
 public:
  BusyPool() {
    for (int thread = 0; thread < 2; ++thread) {
      DispatchQueue::global().async([latches = latches_] {
        latches->entered.count_down();
        latches->released.wait();
      });
    }
    latches_->entered.wait();
  }
  BusyPool(const BusyPool&) = delete;
  BusyPool& operator=(const BusyPool&) = delete;
  ~BusyPool() { latches_->released.count_down(); }

 private:
  struct Latches {
    std::latch entered{2};
    std::latch released{1};
  };
  std::shared_ptr<Latches> latches_ = std::make_shared<Latches>();
};

inline std::string threadName() {
  std::array<char, 16> name{};
  pthread_getname_np(pthread_self(), name.data(), name.size());
  return name.data();
}

}  // namespace kelvo::test
