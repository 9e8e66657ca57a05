#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>

#include "platform/ThreadSafety.h"

namespace kelvo::server {

/// The server's limits on what clients may use. Thread-safe.
class Limits {
 public:
  struct Settings {
    std::size_t connections = 20000;
    std::size_t connectionsPerAddress = 512;
    std::size_t bytes = 256U << 20U;  ///< of all requests that are handled
    std::size_t requestsPerApp = 0;   ///< a second, 0 for no limit
  };
  explicit Limits(const Settings& settings) : settings_(settings) {}

  /// Counts a connection. Returns false if there are too many.
  [[nodiscard]] bool openConnection() noexcept;
  void closeConnection() noexcept { --connections_; }
  /// Returns whether less than a twentieth of all connections is left.
  [[nodiscard]] bool isCrowded() const noexcept {
    return connections_ >= settings_.connections - settings_.connections / 20;
  }
  /// Counts a use of an address: a connection, or a request of a proxy's client. Returns false if it has too many.
  [[nodiscard]] bool enter(const std::string& address) EXCLUDES(mutex_);
  void leave(const std::string& address) EXCLUDES(mutex_);
  /// Counts `bytes` of a request. Returns false if all requests together have too many; then counts nothing.
  [[nodiscard]] bool takeBytes(std::size_t bytes) noexcept;
  void giveBytes(std::size_t bytes) noexcept { bytes_ -= bytes; }
  /// Counts a request of `app`. Returns false if the application sends too many a second. It may spend two seconds'
  /// worth at once.
  [[nodiscard]] bool allows(const std::string& app) EXCLUDES(mutex_);

  [[nodiscard]] std::size_t connections() const noexcept { return connections_; }
  [[nodiscard]] std::size_t bytes() const noexcept { return bytes_; }
  [[nodiscard]] std::uint64_t refusedConnections() const noexcept { return refused_; }

 private:
  using Clock = std::chrono::steady_clock;
  struct Bucket {
    double tokens = 0;
    Clock::time_point since;
  };

  const Settings settings_;
  std::atomic<std::size_t> connections_{0};
  std::atomic<std::size_t> bytes_{0};
  std::atomic<std::uint64_t> refused_{0};
  Mutex mutex_;
  std::unordered_map<std::string, std::size_t> addresses_ GUARDED_BY(mutex_);
  std::unordered_map<std::string, Bucket> buckets_ GUARDED_BY(mutex_);
};

}  // namespace kelvo::server
