#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

struct ssl_ctx_st;
namespace httplib {
class Server;
}

namespace kelvo::collector {

class Connection;

/// Counts the accepted connections. Thread-safe.
struct ConnectionCounts {
  std::atomic<std::size_t> open{0};
  std::atomic<std::size_t> maximum{0};  ///< the highest value of `open` so far
  std::atomic<std::size_t> total{0};

  void opened() noexcept;
  void closed() noexcept { --open; }
};

/// Accepts connections and lets the HTTP library parse their requests and call the handlers.
///
/// Each connection is a `Connection`, which a handler can break, and keeps one thread while it is open. There are at
/// most 256 threads; a further connection gets status 503 at once. A handler, or the routing before it, must call
/// `Connection::endHead` before it reads a body.
/// Thread: one thread owns the listener; handlers run on the connection threads.
class Listener {
 public:
  /// `counts` must outlive the listener. So must `tls`, which is null for plain HTTP.
  Listener(ConnectionCounts& counts, ssl_ctx_st* tls);
  /// Stops.
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  /// Returns the HTTP library's server. Register the handlers with it before `start`.
  [[nodiscard]] httplib::Server& handlers() noexcept;

  /// Listens on `port` of `host`, on a free port if `port` is 0. Call it once. Returns the port, 0 if it is taken.
  [[nodiscard]] int start(const std::string& host, int port);
  /// Stops listening, ends every wait of the open connections, and blocks until all connections are closed.
  void stop();

  /// Returns the connection whose request the calling thread handles. Must be called in a handler only.
  [[nodiscard]] static Connection& currentConnection() noexcept;

 private:
  class Acceptor;
  std::unique_ptr<Acceptor> acceptor_;
};

}  // namespace kelvo::collector
