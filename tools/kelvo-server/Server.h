#pragma once

#include <memory>

#include "kelvo-server/Settings.h"

namespace kelvo::server {

/// The service: everything between the settings and the signals. Thread: one thread owns it.
class Server {
 public:
  explicit Server(const Settings& settings);
  /// Drains.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Listens, and connects to the database as soon as it can be reached. Throws std::runtime_error if a port is taken,
  /// or if a certificate or an address cannot be used. Call it once.
  void start();
  /// Reads the certificate again, and reports an error to standard error.
  void reload();
  /// Stops to accept and blocks until all requests are answered, at most 9 seconds.
  void drain();

  /// Return the ports after `start`.
  [[nodiscard]] int port() const noexcept;
  [[nodiscard]] int adminPort() const noexcept;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kelvo::server
