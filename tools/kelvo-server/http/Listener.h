#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelvo-server/http/Limits.h"
#include "kelvo-service/Service.h"

namespace kelvo::server {

class Loop;

struct Answer {
  int status = 200;
  std::string body = {};
  std::string contentType = "application/json";
  std::string allow = {};  ///< the header Allow, empty for none
  int retryAfter = 0;      ///< the header Retry-After in seconds, 0 for none
};

/// Answers a request: calls the function once, now or later, on the loop that called the handler.
using Handler = std::function<void(service::Request, std::function<void(Answer)>)>;

struct ListenerSettings {
  std::string address = "127.0.0.1";
  unsigned short port = 0;                ///< 0 for a free one
  std::string certificate = {};           ///< file with the chain, PEM; empty for cleartext
  std::string key = {};                   ///< file, PEM
  std::vector<std::string> proxies = {};  ///< addresses, or networks as "10.0.0.0/8", whose X-Forwarded-For counts
  std::size_t mostBodyBytes = 64U << 20U;
  /// Makes the answer to a request that a limit refuses: 503, 413 (body too large) or 400 (no HTTP).
  std::function<Answer(int status, const std::string& application)> refuse = {};
};

/// Accepts connections on one port, spreads them over the loops, and speaks HTTP/1.1 with each. An idle connection has
/// no buffers.
class Listener {
 public:
  /// `loops` and `handlers` correspond; `limits` and `loops` must outlive the listener. When it dies,
  /// the loops must have stopped.
  Listener(std::vector<Loop*> loops, std::vector<Handler> handlers, Limits& limits, ListenerSettings settings);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  /// Listens. Returns the port. Throws std::runtime_error if the port is taken, or if the certificate cannot be used.
  int start();
  /// Reads certificate and key again, for new connections. Returns an error, empty on success; then the old ones stay.
  /// Thread: any.
  [[nodiscard]] std::string reloadCertificate();
  /// Stops to accept, closes idle connections, and lets the others answer their request first. Thread: any.
  void drain();
  /// Returns the number of open connections. Thread: any.
  [[nodiscard]] std::size_t open() const noexcept;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kelvo::server
