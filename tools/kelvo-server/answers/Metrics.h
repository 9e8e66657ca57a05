#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "platform/ThreadSafety.h"

namespace kelvo::server {

using Counter = std::atomic<std::uint64_t>;

/// The counts of one application since the start.
struct AppCounts {
  static constexpr std::array<double, 9> kSeconds = {0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.5, 2.5};

  Counter requests{0};
  Counter chunks{0};  ///< stored, each once
  Counter events{0};
  Counter duplicates{0};
  Counter conflicts{0};
  Counter quarantined{0};
  Counter dropped{0};  ///< of erased devices
  Counter erasures{0};
  Counter tooLarge{0};     ///< answered 413
  Counter tooMany{0};      ///< answered 429
  Counter unavailable{0};  ///< answered 503
  Counter waiting{0};      ///< chunks that wait for their commit now
  /// Commit times of chunks: element i counts those of at most `kSeconds[i]`, the last one all.
  std::array<Counter, kSeconds.size() + 1> commits{};
  Counter commitMicroseconds{0};

  void committed(std::chrono::microseconds time);
};

/// The state of the process at one moment.
struct Gauges {
  std::size_t connections = 0;
  std::size_t bytes = 0;  ///< of the requests that are handled
  std::uint64_t refusedConnections = 0;
  bool isDatabaseReady = false;
};

/// Counts by application. Thread-safe.
class Metrics {
 public:
  /// Returns the counts of `app`. They live as long as this object. Beyond 1000 applications, further ones share the
  /// counts of "(other)", so that invented names use no memory.
  [[nodiscard]] AppCounts& of(const std::string& app) EXCLUDES(mutex_);
  /// Returns everything in Prometheus' text format.
  [[nodiscard]] std::string text(const Gauges& gauges) const EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;
  std::map<std::string, std::unique_ptr<AppCounts>> apps_ GUARDED_BY(mutex_);
};

}  // namespace kelvo::server
