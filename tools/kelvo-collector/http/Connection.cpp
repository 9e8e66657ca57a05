#include "kelvo-collector/http/Connection.h"

#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace kelvo::collector {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// Limits for a client that sends half a request, or does not read its answer.
constexpr milliseconds kReadLimit{30'000};
constexpr milliseconds kWriteLimit{30'000};
/// Bytes per TLS write. So few fit into the socket's buffer whenever poll reports room, so the write does not block.
constexpr std::size_t kTLSPiece = 4096;
constexpr int kNoDescriptor = -1;  // poll ignores it

int clamped(std::size_t size) {
  return static_cast<int>(std::min<std::size_t>(size, INT_MAX));
}

}  // namespace

void Connection::Freer::operator()(ssl_st* session) const noexcept {
  SSL_free(session);
}

Connection::Connection(int socket, int stopDescriptor, ssl_ctx_st* tls)
    : socket_(socket), stopDescriptor_(stopDescriptor), tls_(tls == nullptr ? nullptr : SSL_new(tls)) {}

Connection::~Connection() {
  if (cut_) {
    const linger reset{1, 0};
    setsockopt(socket_, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  } else {
    if (tls_) SSL_shutdown(tls_.get());
    shutdown(socket_, SHUT_RDWR);
  }
  close(socket_);
}

bool Connection::open() {
  if (!tls_) return true;
  return SSL_set_fd(tls_.get(), socket_) == 1 && pollFor(POLLIN, kNoDescriptor, kReadLimit) == PollResult::Socket &&
         SSL_accept(tls_.get()) == 1;
}

Connection::PollResult Connection::pollFor(short events, int descriptor, std::optional<milliseconds> limit) const {
  const auto end = steady_clock::now() + limit.value_or(milliseconds(0));
  for (;;) {
    pollfd watched[] = {{socket_, events, 0}, {stopDescriptor_, POLLIN, 0}, {descriptor, POLLIN, 0}};
    int timeout = -1;
    if (limit) {
      const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now()).count();
      timeout = static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
    }
    const int ready = poll(watched, std::size(watched), timeout);
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) return PollResult::TimeOver;
    if (ready < 0 || watched[1].revents != 0) return PollResult::Stopped;
    return watched[0].revents != 0 ? PollResult::Socket : PollResult::Descriptor;
  }
}

bool Connection::hasBufferedData() const {
  return begin_ < end_ || (tls_ && SSL_pending(tls_.get()) > 0);
}

bool Connection::waitForRequest(milliseconds limit) {
  return !cut_ && (hasBufferedData() || pollFor(POLLIN, kNoDescriptor, limit) == PollResult::Socket);
}

bool Connection::staysOpen(std::optional<milliseconds> limit) {
  return pollFor(POLLRDHUP, kNoDescriptor, limit) == PollResult::TimeOver;
}

Connection::WaitResult Connection::waitFor(int descriptor, milliseconds limit) {
  switch (pollFor(POLLRDHUP, descriptor, limit)) {
    case PollResult::Descriptor: return WaitResult::Readable;
    case PollResult::TimeOver: return WaitResult::TimeOver;
    default: return WaitResult::Closed;
  }
}

ssize_t Connection::read(char* bytes, std::size_t size) {
  if (begin_ == end_) {
    const ssize_t received = receive(buffer_.data(), buffer_.size());
    if (received <= 0) return received;
    begin_ = 0;
    end_ = static_cast<std::size_t>(received);
  }
  const std::size_t taken = std::min(size, end_ - begin_);
  std::memcpy(bytes, buffer_.data() + begin_, taken);
  begin_ += taken;
  return static_cast<ssize_t>(taken);
}

ssize_t Connection::receive(char* bytes, std::size_t size) {
  if (!hasBufferedData() && pollFor(POLLIN, kNoDescriptor, kReadLimit) != PollResult::Socket) return -1;
  return tls_ ? SSL_read(tls_.get(), bytes, clamped(size)) : recv(socket_, bytes, size, 0);
}

ssize_t Connection::write(const char* bytes, std::size_t size) {
  if (cut_ || pollFor(POLLOUT, kNoDescriptor, kWriteLimit) != PollResult::Socket) return -1;
  // Never blocks in the write itself: a blocked write would not notice that the server stops.
  if (tls_) return SSL_write(tls_.get(), bytes, clamped(std::min(size, kTLSPiece)));
  return send(socket_, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
}

}  // namespace kelvo::collector
