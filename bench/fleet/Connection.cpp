#include "Connection.h"

#include <array>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <charconv>
#include <utility>

namespace kelvo::bench {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using Error = boost::system::error_code;

constexpr std::chrono::seconds kLongestAnswer(30);

class BeastConnection final : public Connection {
 public:
  BeastConnection(asio::io_context& loop, const Service& service, bool isKept, const std::string& address)
      : stream_(loop), endpoint_(asio::ip::make_address(service.host), service.port), isKept_(isKept) {
    fixedHead_ =
        "Host: " + service.host + ":" + std::to_string(service.port) + "\r\nContent-Type: application/json\r\n";
    if (!address.empty()) fixedHead_ += "X-Forwarded-For: " + address + "\r\n";
    if (!isKept) fixedHead_ += "Connection: close\r\n";
  }

  void post(const std::string& path, std::string body, Completion completion) override {
    head_ =
        "POST " + path + " HTTP/1.1\r\n" + fixedHead_ + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n";
    body_ = std::move(body);
    completion_ = std::move(completion);
    wasOpen_ = isOpen_;
    if (isOpen_) return write();
    connect();
  }

  void close() override {
    isOpen_ = false;
    stream_.close();
  }

 private:
  [[nodiscard]] std::shared_ptr<BeastConnection> self() {
    return std::static_pointer_cast<BeastConnection>(shared_from_this());
  }

  void connect() {
    stream_.expires_after(kLongestAnswer);
    stream_.async_connect(endpoint_, [self = self()](Error error) {
      if (error) return self->end({});
      Error ignored;
      self->stream_.socket().set_option(asio::ip::tcp::no_delay(true), ignored);
      self->isOpen_ = true;
      self->write();
    });
  }

  void write() {
    stream_.expires_after(kLongestAnswer);
    const std::array<asio::const_buffer, 2> parts{asio::buffer(head_), asio::buffer(body_)};
    asio::async_write(stream_, parts, [self = self()](Error error, std::size_t) {
      // A refused body may be answered before all of it is written.
      if (error && error != asio::error::broken_pipe) return self->fail();
      self->read();
    });
  }

  void read() {
    answer_ = {};
    http::async_read(stream_, buffer_, answer_, [self = self()](Error error, std::size_t) {
      if (error) return self->fail();
      self->end(self->answer());
    });
  }

  [[nodiscard]] Answer answer() const {
    Answer result{static_cast<int>(answer_.result_int())};
    const auto field = answer_[http::field::retry_after];
    int seconds = 0;
    if (std::from_chars(field.data(), field.data() + field.size(), seconds).ec == std::errc()) {
      result.retryAfter = std::chrono::seconds(seconds);
    }
    return result;
  }

  void fail() {
    const bool wasClosedMeanwhile = std::exchange(wasOpen_, false) && isOpen_;
    close();
    buffer_.clear();
    if (wasClosedMeanwhile) return connect();
    end({});
  }

  void end(Answer answer) {
    stream_.expires_never();
    if (answer.status == 0 || !isKept_ || !answer_.keep_alive()) close();
    // An idle device keeps no memory.
    body_ = {};
    head_ = {};
    if (buffer_.size() == 0) buffer_ = {};
    answer_ = {};
    std::exchange(completion_, nullptr)(answer);
  }

  beast::tcp_stream stream_;
  asio::ip::tcp::endpoint endpoint_;
  bool isKept_;
  bool isOpen_ = false;
  bool wasOpen_ = false;  // when the post began
  std::string fixedHead_;
  std::string head_;
  std::string body_;
  beast::flat_buffer buffer_;
  http::response<http::string_body> answer_;
  Completion completion_;
};

}  // namespace

std::optional<Service> Service::parse(const std::string& url) {
  constexpr std::string_view kScheme = "http://";
  const auto colon = url.rfind(':');
  if (url.rfind(kScheme, 0) != 0 || colon <= kScheme.size()) return std::nullopt;
  Service service{url.substr(kScheme.size(), colon - kScheme.size())};
  const char* end = url.data() + url.size();
  const auto [read, error] = std::from_chars(url.data() + colon + 1, end, service.port);
  Error isNoAddress;
  asio::ip::make_address(service.host, isNoAddress);
  if (error != std::errc() || read != end || isNoAddress) return std::nullopt;
  return service;
}

std::shared_ptr<Connection> Connection::make(asio::io_context& loop, const Service& service, bool isKept,
                                             const std::string& address) {
  return std::make_shared<BeastConnection>(loop, service, isKept, address);
}

}  // namespace kelvo::bench
