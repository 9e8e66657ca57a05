#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

struct ssl_st;
struct ssl_ctx_st;

namespace kelvo::collector {

/// An accepted connection, plain or under TLS, that can be broken on purpose. One thread uses it.
///
/// While it waits it also watches a descriptor that becomes readable when the server stops; from then on every wait
/// ends at once, as if the client had gone.
class Connection {
 public:
  /// Owns `socket`. `tls` is null for a plain connection; it is shared and outlives this one.
  Connection(int socket, int stopDescriptor, ssl_ctx_st* tls);
  /// Closes; with a reset when it was cut.
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Does what must be done before the first request. False when the client is no good.
  [[nodiscard]] bool open();
  /// Waits until a request begins; false when there will be none.
  [[nodiscard]] bool waitForRequest(std::chrono::milliseconds limit);
  /// Waits until the client has closed or `limit` has passed (never without one); true when it is still there.
  bool stay(std::optional<std::chrono::milliseconds> limit);
  enum class Waited : std::uint8_t { Readable, TimeOver, Gone };
  /// The same until `descriptor` becomes readable.
  [[nodiscard]] Waited await(int descriptor, std::chrono::milliseconds limit);
  /// Sends nothing from now on.
  void cut() noexcept { cut_ = true; }

  /// As of the C library: bytes moved, 0 at the end, -1 for an error. A client that takes nothing for long is given up.
  ssize_t read(char* bytes, std::size_t size);
  ssize_t write(const char* bytes, std::size_t size);

  [[nodiscard]] int socket() const noexcept { return socket_; }

 private:
  struct Freer {
    void operator()(ssl_st* session) const noexcept;
  };

  [[nodiscard]] bool wait(short events, std::optional<std::chrono::milliseconds> limit) const;
  [[nodiscard]] bool dataIsHere() const;
  ssize_t receive(char* bytes, std::size_t size);

  int socket_;
  int stopDescriptor_;
  bool cut_ = false;
  std::unique_ptr<ssl_st, Freer> tls_;
  std::array<char, 8192> buffer_{};  // requests are read a byte at a time while their end is searched
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace kelvo::collector
