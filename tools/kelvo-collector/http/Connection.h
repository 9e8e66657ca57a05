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

/// An accepted connection, plain or TLS, that a handler can break on purpose.
///
/// Every wait also watches a descriptor that becomes readable when the server stops. From then on every wait returns at
/// once, as if the client had closed the connection.
/// Thread: one thread owns a connection and makes all calls.
class Connection {
 public:
  /// Owns `socket`. `tls` is null for a plain connection; otherwise it is shared and must outlive the connection.
  Connection(int socket, int stopDescriptor, ssl_ctx_st* tls);
  /// Closes the socket; resets the connection if it was cut.
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Does the TLS handshake, nothing for a plain connection. Returns false if it fails.
  [[nodiscard]] bool open();
  /// Blocks until a request begins. Returns false if none begins within `limit`.
  [[nodiscard]] bool waitForRequest(std::chrono::milliseconds limit);
  /// Blocks until the client closes or `limit`, if any, has passed. Returns true if the connection is still open.
  bool staysOpen(std::optional<std::chrono::milliseconds> limit);
  enum class WaitResult : std::uint8_t { Readable, TimeOver, Closed };
  /// Blocks until `descriptor` becomes readable, `limit` has passed, or the client closes.
  [[nodiscard]] WaitResult waitFor(int descriptor, std::chrono::milliseconds limit);
  /// Sends nothing from now on, and lets the destructor reset the connection.
  void cut() noexcept { cut_ = true; }

  /// Return the number of bytes moved, 0 at the end, -1 on an error or when the client does nothing for 30 seconds.
  ssize_t read(char* bytes, std::size_t size);
  ssize_t write(const char* bytes, std::size_t size);

  [[nodiscard]] int socket() const noexcept { return socket_; }

 private:
  struct Freer {
    void operator()(ssl_st* session) const noexcept;
  };
  enum class PollResult : std::uint8_t { Socket, Descriptor, TimeOver, Stopped };

  /// Blocks until one of `events` occurs on the socket, `descriptor` (-1 for none) becomes readable, or `limit`, if
  /// any, has passed.
  [[nodiscard]] PollResult pollFor(short events, int descriptor, std::optional<std::chrono::milliseconds> limit) const;
  [[nodiscard]] bool hasBufferedData() const;
  ssize_t receive(char* bytes, std::size_t size);

  int socket_;
  int stopDescriptor_;
  bool cut_ = false;
  std::unique_ptr<ssl_st, Freer> tls_;
  std::array<char, 8192> buffer_{};  // the HTTP library reads the head of a request byte by byte
  std::size_t begin_ = 0;            // of the unread bytes in the buffer
  std::size_t end_ = 0;
};

}  // namespace kelvo::collector
