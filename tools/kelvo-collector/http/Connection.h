#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct ssl_st;
struct ssl_ctx_st;

namespace kelvo::collector {

/// Returns a whole answer without a body. It asks the client to try again later. `statusLine` is for example
/// "503 Service Unavailable".
[[nodiscard]] std::string bareAnswer(std::string_view statusLine);

/// An accepted connection, plain or TLS, that a handler can break on purpose.
///
/// A request has limits: `kLargestHead` bytes and `kHeadLimit` for its head, `kRequestLimit` for all of it. A request
/// beyond them cannot be read any further. Every wait also watches a descriptor that becomes readable when the server
/// stops. From then on every wait returns at once, as if the client had closed the connection.
/// Thread: one thread owns a connection and makes all calls.
class Connection {
 public:
  static constexpr std::size_t kLargestHead = 64U << 10U;             ///< bytes of request line and headers
  static constexpr std::chrono::milliseconds kHeadLimit{10'000};      ///< from its first byte; also for a TLS handshake
  static constexpr std::chrono::milliseconds kRequestLimit{120'000};  ///< from its first byte to its last

  /// Owns `socket`. `tls` is null for a plain connection; otherwise it is shared and must outlive the connection.
  Connection(int socket, int stopDescriptor, ssl_ctx_st* tls);
  /// Closes the socket; resets the connection if it was cut.
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Does the TLS handshake, nothing for a plain connection. Returns false if it fails or takes too long.
  [[nodiscard]] bool open();
  /// Blocks until a request begins, and starts its limits. Returns false if none begins within `limit`.
  [[nodiscard]] bool waitForRequest(std::chrono::milliseconds limit);
  /// The head of the request is complete: its limits no longer apply.
  void endHead() noexcept { headLeft_.reset(); }
  /// The head is too long or too late. Nothing has been answered, and the connection takes no answer but `refuse`.
  enum class HeadFault : std::uint8_t { None, TooLong, TooLate };
  [[nodiscard]] HeadFault headFault() const noexcept { return headFault_; }
  /// Sends the bare answer with this status line, and ends the connection.
  void refuse(std::string_view statusLine);
  /// The present answer is the last one: the rest of the request is never read.
  void endAfterAnswer() noexcept { isEnding_ = true; }
  [[nodiscard]] bool isEnding() const noexcept { return isEnding_; }
  /// Blocks until the client closes or `limit`, if any, has passed. Returns true if the connection is still open.
  bool staysOpen(std::optional<std::chrono::milliseconds> limit);
  enum class WaitResult : std::uint8_t { Readable, TimeOver, Closed };
  /// Blocks until `descriptor` becomes readable, `limit` has passed, or the client closes.
  [[nodiscard]] WaitResult waitFor(int descriptor, std::chrono::milliseconds limit);
  /// Sends nothing from now on, and lets the destructor reset the connection.
  void cut() noexcept { cut_ = true; }

  /// Return the number of bytes moved, 0 at the end, -1 on an error, at a limit of the request, or when the client does
  /// nothing for 30 seconds.
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
  /// Returns true if it makes sense to repeat the TLS call that has just returned `result`: the socket is ready.
  [[nodiscard]] bool isReadyAgain(int result, std::chrono::milliseconds limit) const;
  /// Returns the time left for the next bytes of the request.
  [[nodiscard]] std::chrono::milliseconds timeLeft() const;
  ssize_t receive(char* bytes, std::size_t size);
  ssize_t send(const char* bytes, std::size_t size);
  /// Reads and drops what the client still sends, for a moment: otherwise the system would reset the connection, and
  /// the client might lose the answer.
  void drain();

  int socket_;
  int stopDescriptor_;
  bool cut_ = false;
  bool isEnding_ = false;
  HeadFault headFault_ = HeadFault::None;
  std::optional<std::size_t> headLeft_;            // bytes; nullopt outside the head
  std::chrono::steady_clock::time_point begun_{};  // of the request
  std::unique_ptr<ssl_st, Freer> tls_;
  std::array<char, 8192> buffer_{};  // the HTTP library reads the head of a request byte by byte
  std::size_t begin_ = 0;            // of the unread bytes in the buffer
  std::size_t end_ = 0;
};

}  // namespace kelvo::collector
