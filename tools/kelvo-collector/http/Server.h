#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kelvo-collector/service/Script.h"
#include "kelvo-collector/store/Store.h"
#include "kelvo/Value.h"

namespace kelvo::collector {

class ServiceState;

/// The analytics service on 127.0.0.1: answers every path that the library asks for from its `ServiceState`, and puts
/// every request and accepted chunk into its `Store`.
///
/// It is stopped, or started; it may be started again (on the same port, to stand for a network that comes back).
/// `start` and `stop` belong to one thread; everything else may be called from any thread at any time. Each connection
/// has a thread of its own, so up to 256 may be open, and hang, without holding up others. The process ignores SIGPIPE
/// from the first start on. Requests whose host is no loopback name are refused.
class Server {
 public:
  /// A server with a store in memory and a service state of its own.
  Server();
  /// Both must outlive the server.
  Server(Store& store, ServiceState& state);
  /// Stops.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Listens on `port`, on a free one when it is 0, and returns the port; 0 when the port cannot be had.
  int start(int port = 0);
  /// The same over TLS; the files are PEM, the first holding the chain. 0 when they cannot be used, too.
  int startTLS(const std::string& certificateFile, const std::string& keyFile, int port = 0);
  /// Closes every connection and waits until none is left. Requests that hang are cut.
  void stop();
  /// "http://127.0.0.1:PORT" or "https://127.0.0.1:PORT" of the last start, without a slash at its end.
  [[nodiscard]] std::string baseURL() const;

  [[nodiscard]] Store& store() noexcept;
  [[nodiscard]] ServiceState& state() noexcept;

  /// Follows `script` for requests whose path and query contain `pathFragment`, in place of what was set for that very
  /// fragment before. When several fragments fit, the one set last wins.
  void answer(const std::string& pathFragment, Script script);
  /// Follows the scripts one after the other, each for its `times` (at least one; the last one may be for good).
  void answerInTurn(const std::string& pathFragment, std::vector<Script> scripts);
  void answerNormally(const std::string& pathFragment);

  /// The requests whose path and query contain `pathFragment`, in order of arrival. A request is listed once it is
  /// decided what happens to it, before the first byte of the answer goes out. `/debug` requests are never listed.
  [[nodiscard]] std::vector<ReceivedRequest> requests(const std::string& pathFragment = {}) const;
  /// Bodies of every accepted chunk, repeated ones included, in order of arrival.
  [[nodiscard]] std::vector<Value> chunks() const;
  /// Waits until `count` such requests are listed; false when `timeout` has passed first.
  [[nodiscard]] bool waitFor(std::size_t count, const std::string& pathFragment = {},
                             std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;
  [[nodiscard]] bool waitForChunks(std::size_t count,
                                   std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;

  /// Most connections that were open at one time, and how many were accepted in all.
  [[nodiscard]] std::size_t maximumConcurrent() const;
  [[nodiscard]] std::size_t numberOfConnections() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kelvo::collector
