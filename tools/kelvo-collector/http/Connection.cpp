#include "kelvo-collector/http/Connection.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/err.h>
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

/// Limits for a client that does nothing in the middle of a request, or does not read its answer.
constexpr milliseconds kReadLimit{30'000};
constexpr milliseconds kWriteLimit{30'000};
constexpr milliseconds kDrainLimit{500};
constexpr std::size_t kMostDrained = 4U << 20U;  // bytes
constexpr int kNoDescriptor = -1;                // poll ignores it

int clamped(std::size_t size) {
  return static_cast<int>(std::min<std::size_t>(size, INT_MAX));
}

}  // namespace

std::string bareAnswer(std::string_view statusLine) {
  return fmt::format("HTTP/1.1 {}\r\nContent-Length: 0\r\nRetry-After: 1\r\nConnection: close\r\n\r\n", statusLine);
}

void Connection::Freer::operator()(ssl_st* session) const noexcept {
  SSL_free(session);
}

Connection::Connection(int socket, int stopDescriptor, ssl_ctx_st* tls)
    : socket_(socket), stopDescriptor_(stopDescriptor), tls_(tls == nullptr ? nullptr : SSL_new(tls)) {
  // Never blocks in a read or write itself: a blocked one would notice neither a limit nor the end of the server.
  fcntl(socket_, F_SETFL, fcntl(socket_, F_GETFL) | O_NONBLOCK);
}

Connection::~Connection() {
  if (cut_) {
    const linger reset{1, 0};
    setsockopt(socket_, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  } else {
    if (tls_) SSL_shutdown(tls_.get());
    if (isEnding_) drain();
    shutdown(socket_, SHUT_RDWR);
  }
  close(socket_);
}

bool Connection::open() {
  if (!tls_) return true;
  if (SSL_set_fd(tls_.get(), socket_) != 1) return false;
  const auto end = steady_clock::now() + kHeadLimit;
  for (;;) {
    ERR_clear_error();
    const int result = SSL_accept(tls_.get());
    if (result == 1) return true;
    if (!isReadyAgain(result, std::chrono::ceil<milliseconds>(end - steady_clock::now()))) return false;
  }
}

bool Connection::isReadyAgain(int result, milliseconds limit) const {
  switch (SSL_get_error(tls_.get(), result)) {
    case SSL_ERROR_WANT_READ: return pollFor(POLLIN, kNoDescriptor, limit) == PollResult::Socket;
    case SSL_ERROR_WANT_WRITE: return pollFor(POLLOUT, kNoDescriptor, limit) == PollResult::Socket;
    default: return false;
  }
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
  if (cut_ || isEnding_) return false;
  if (!hasBufferedData() && pollFor(POLLIN, kNoDescriptor, limit) != PollResult::Socket) return false;
  begun_ = steady_clock::now();
  headLeft_ = kLargestHead;
  return true;
}

void Connection::refuse(std::string_view statusLine) {
  headFault_ = HeadFault::None;
  isEnding_ = true;
  const std::string answer = bareAnswer(statusLine);
  write(answer.data(), answer.size());
}

void Connection::drain() {
  shutdown(socket_, SHUT_WR);
  const auto end = steady_clock::now() + kDrainLimit;
  for (std::size_t dropped = 0; dropped < kMostDrained;) {
    const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
    if (pollFor(POLLIN, kNoDescriptor, left) != PollResult::Socket) return;
    const ssize_t count = recv(socket_, buffer_.data(), buffer_.size(), 0);
    if (count <= 0) return;
    dropped += static_cast<std::size_t>(count);
  }
}

milliseconds Connection::timeLeft() const {
  const milliseconds whole = headLeft_ ? kHeadLimit : kRequestLimit;
  return std::min(kReadLimit, std::chrono::ceil<milliseconds>(begun_ + whole - steady_clock::now()));
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
  if (headFault_ != HeadFault::None) return -1;
  if (headLeft_ == std::size_t{0}) {
    headFault_ = HeadFault::TooLong;
    return -1;
  }
  if (begin_ == end_) {
    const ssize_t received = receive(buffer_.data(), buffer_.size());
    if (received < 0 && headLeft_ && timeLeft() <= milliseconds(0)) headFault_ = HeadFault::TooLate;
    if (received <= 0) return received;
    begin_ = 0;
    end_ = static_cast<std::size_t>(received);
  }
  const std::size_t taken = std::min({size, end_ - begin_, headLeft_.value_or(size)});
  if (headLeft_) *headLeft_ -= taken;
  std::memcpy(bytes, buffer_.data() + begin_, taken);
  begin_ += taken;
  return static_cast<ssize_t>(taken);
}

ssize_t Connection::receive(char* bytes, std::size_t size) {
  for (;;) {
    if (tls_) {
      ERR_clear_error();
      const int count = SSL_read(tls_.get(), bytes, clamped(size));
      if (count > 0) return count;
      if (SSL_get_error(tls_.get(), count) == SSL_ERROR_ZERO_RETURN) return 0;
      if (!isReadyAgain(count, timeLeft())) return -1;
    } else {
      const ssize_t count = recv(socket_, bytes, size, 0);
      if (count >= 0) return count;
      if (errno != EAGAIN && errno != EINTR) return -1;
      if (pollFor(POLLIN, kNoDescriptor, timeLeft()) != PollResult::Socket) return -1;
    }
  }
}

ssize_t Connection::send(const char* bytes, std::size_t size) {
  for (;;) {
    if (tls_) {
      ERR_clear_error();
      const int count = SSL_write(tls_.get(), bytes, clamped(size));
      if (count > 0) return count;
      if (!isReadyAgain(count, kWriteLimit)) return -1;
    } else {
      const ssize_t count = ::send(socket_, bytes, size, MSG_NOSIGNAL);
      if (count >= 0) return count;
      if (errno != EAGAIN && errno != EINTR) return -1;
      if (pollFor(POLLOUT, kNoDescriptor, kWriteLimit) != PollResult::Socket) return -1;
    }
  }
}

ssize_t Connection::write(const char* bytes, std::size_t size) {
  // The HTTP library would answer a broken head itself, with another status.
  if (cut_ || headFault_ != HeadFault::None) return -1;
  return send(bytes, size);
}

}  // namespace kelvo::collector
