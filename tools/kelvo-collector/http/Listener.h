#pragma once

#include <httplib.h>

#include <atomic>
#include <cstddef>

struct ssl_ctx_st;

namespace kelvo::collector {

class Connection;

/// How many connections there are, were at most, and have been.
struct Tallied {
  std::atomic<std::size_t> open{0};
  std::atomic<std::size_t> most{0};
  std::atomic<std::size_t> all{0};

  void opened() noexcept;
};

/// The HTTP library's server over connections of our own, which can be broken and stop at once. Each connection has a
/// thread while it is open.
class Listener final : public httplib::Server {
 public:
  Listener(Tallied& tally, ssl_ctx_st* tls);
  ~Listener() override;

  /// Stops listening, and ends what every connection waits for.
  void end();

  /// The connection that the calling thread serves.
  [[nodiscard]] static Connection& served() noexcept;

 private:
  bool process_and_close_socket(socket_t socket) override;
  void serve(Connection& connection);

  Tallied& tally_;
  ssl_ctx_st* tls_;
  int stopDescriptor_;
};

}  // namespace kelvo::collector
