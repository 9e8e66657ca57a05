#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace boost::asio {
class io_context;
}

namespace kelvo::bench {

/// Where a service listens: "http://127.0.0.1:8080".
struct Service {
  std::string host;
  unsigned short port = 0;

  /// Returns nullopt for another text.
  static std::optional<Service> parse(const std::string& url);
};

struct Answer {
  int status = 0;  ///< 0 without an answer
  std::optional<std::chrono::seconds> retryAfter = std::nullopt;
};

/// One HTTP/1.1 connection of a device. It connects when it has something to post. It posts one body at a time. A kept
/// connection that the service has closed is replaced once, as HTTP clients do. Thread: the loop's.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  using Completion = std::function<void(Answer)>;

  /// `address` is the address that the service is told in X-Forwarded-For, empty for none.
  static std::shared_ptr<Connection> make(boost::asio::io_context& loop, const Service& service, bool isKept,
                                          const std::string& address);
  virtual ~Connection() = default;

  /// Posts `body`. Calls `completion` from the loop, with status 0 if there is no complete answer within 30 seconds.
  virtual void post(const std::string& path, std::string body, Completion completion) = 0;
  /// Closes the connection. A post under way fails.
  virtual void close() = 0;
};

}  // namespace kelvo::bench
