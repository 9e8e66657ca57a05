#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kelvo-collector/service/Script.h"
#include "kelvo-collector/store/Store.h"
#include "kelvo-service/ServiceState.h"
#include "kelvo/Value.h"

namespace kelvo::collector {

using service::ServiceState;

/// The analytics service on 127.0.0.1. It answers every path that the library asks for from its `ServiceState`, and
/// keeps every request and accepted chunk in its `Store`. It also answers the `/debug` paths and serves the page.
///
/// States: stopped, started. It may be started again, for example on the same port to simulate a network outage.
/// Each connection has a thread of its own, at most 256, so a request that hangs does not delay the others; a further
/// connection gets status 503 at once. The server refuses a request whose host is not a loopback name, or that a
/// foreign web page sends. A body has 64 MiB at most, counted as it arrives and unpacks; all bodies that arrive at one
/// time have 256 MiB. From the first start on, the process ignores SIGPIPE. Thread: one thread calls `start` and
/// `stop`; everything else is thread-safe.
class Server {
 public:
  /// Makes a stopped server with an in-memory store and a service state of its own.
  Server();
  /// Both must outlive the server.
  Server(Store& store, ServiceState& state);
  /// Stops.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Listens on `port`, on a free port if it is 0. Stops first if started. Returns the port, 0 if it is taken.
  int start(int port = 0);
  /// As `start`, with TLS. The files are PEM; the first holds the certificate chain. Returns 0 also if they are
  /// unusable.
  int startTLS(const std::string& certificateFile, const std::string& keyFile, int port = 0);
  /// Cuts hanging requests, closes every connection and blocks until all are closed.
  void stop();
  /// Returns "http://127.0.0.1:PORT" or "https://127.0.0.1:PORT" of the last start, without a slash at the end.
  [[nodiscard]] std::string baseURL() const;

  /// From the next start on, requests below /debug must carry `token`. An empty token lets every request through.
  void setToken(std::string token);

  [[nodiscard]] Store& store() noexcept;
  [[nodiscard]] ServiceState& state() noexcept;

  /// Answers requests that contain `pathFragment` in "METHOD path?query" as `script` says. Replaces the scripts of the
  /// same fragment. If several fragments match, the last one set wins.
  void answer(const std::string& pathFragment, Script script);
  /// Follows the scripts in order, each for its `times`. A script without a limit counts once, the last one
  /// permanently.
  void answerInTurn(const std::string& pathFragment, std::vector<Script> scripts);
  /// Removes the scripts of `pathFragment`.
  void answerNormally(const std::string& pathFragment);

  /// Returns the requests whose path and query contain `pathFragment`, in order of arrival. A request is listed once
  /// its answer is decided, before the first byte of the answer is sent. `/debug` requests are never listed.
  [[nodiscard]] std::vector<ReceivedRequest> requests(const std::string& pathFragment = {}) const;
  /// Returns the bodies of all accepted chunks, including repeated ones, in order of arrival.
  [[nodiscard]] std::vector<Value> chunks() const;
  /// Blocks until `count` matching requests are listed. Returns false if `timeout` passes first.
  [[nodiscard]] bool waitFor(std::size_t count, const std::string& pathFragment = {},
                             std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;
  [[nodiscard]] bool waitForChunks(std::size_t count,
                                   std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;

  /// Returns the highest number of connections that were open at the same time.
  [[nodiscard]] std::size_t maximumConcurrent() const;
  /// Returns the number of connections accepted so far.
  [[nodiscard]] std::size_t numberOfConnections() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kelvo::collector
