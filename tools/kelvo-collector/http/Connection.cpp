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

/// A client that stops in the middle of a request is given up after this long.
constexpr milliseconds kReadLimit{30'000};
/// So is one that does not take its answer.
constexpr milliseconds kWriteLimit{30'000};
constexpr std::size_t kTLSPiece = 4096;

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
  return SSL_set_fd(tls_.get(), socket_) == 1 && wait(POLLIN, kReadLimit) && SSL_accept(tls_.get()) == 1;
}

/// True when one of `events` has come; false at the limit, or when the server stops.
bool Connection::wait(short events, std::optional<milliseconds> limit) const {
  const auto end = steady_clock::now() + limit.value_or(milliseconds(0));
  for (;;) {
    pollfd watched[] = {{socket_, events, 0}, {stopDescriptor_, POLLIN, 0}};
    int timeout = -1;
    if (limit) {
      const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now()).count();
      timeout = static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
    }
    const int ready = poll(watched, 2, timeout);
    if (ready < 0 && errno == EINTR) continue;
    return ready > 0 && watched[1].revents == 0;
  }
}

bool Connection::dataIsHere() const {
  return begin_ < end_ || (tls_ && SSL_pending(tls_.get()) > 0);
}

bool Connection::waitForRequest(milliseconds limit) {
  return !cut_ && (dataIsHere() || wait(POLLIN, limit));
}

bool Connection::stay(std::optional<milliseconds> limit) {
  if (wait(POLLRDHUP, limit)) return false;
  pollfd stopped{stopDescriptor_, POLLIN, 0};
  return poll(&stopped, 1, 0) == 0;
}

Connection::Waited Connection::await(int descriptor, milliseconds limit) {
  const auto end = steady_clock::now() + limit;
  for (;;) {
    pollfd watched[] = {{socket_, POLLRDHUP, 0}, {stopDescriptor_, POLLIN, 0}, {descriptor, POLLIN, 0}};
    const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now()).count();
    const int ready = poll(watched, 3, static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX)));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) return Waited::TimeOver;
    return ready > 0 && watched[0].revents == 0 && watched[1].revents == 0 ? Waited::Readable : Waited::Gone;
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
  if (!dataIsHere() && !wait(POLLIN, kReadLimit)) return -1;
  return tls_ ? SSL_read(tls_.get(), bytes, clamped(size)) : recv(socket_, bytes, size, 0);
}

ssize_t Connection::write(const char* bytes, std::size_t size) {
  if (cut_ || !wait(POLLOUT, kWriteLimit)) return -1;
  // Not more than surely fits where there is room at all: what must wait for room would not see the server stop.
  if (tls_) return SSL_write(tls_.get(), bytes, clamped(std::min(size, kTLSPiece)));
  return send(socket_, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
}

}  // namespace kelvo::collector
