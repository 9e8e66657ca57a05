// The only source that includes Beast, because it compiles for long.

#include "kelvo-server/http/Connection.h"

#include <algorithm>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <boost/intrusive/list.hpp>
#include <type_traits>

#include "kelvo-server/http/Target.h"
#include "kelvo-server/loop/Loop.h"

namespace kelvo::server {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using Error = boost::system::error_code;
using Plain = beast::tcp_stream;
using Secure = asio::ssl::stream<Plain>;

constexpr std::chrono::seconds kLongestIdle{75};
constexpr std::chrono::seconds kLongestHandshake{10};
constexpr std::chrono::seconds kLongestHead{10};
constexpr std::chrono::seconds kLongestPiece{20};
constexpr std::chrono::seconds kLongestAnswer{30};
constexpr std::uint32_t kMostHeadBytes = 16U << 10U;
constexpr std::size_t kPieceBytes = 32U << 10U;

/// Returns a completion token that reports errors in `error` instead of exceptions.
auto into(Error& error) {
  return asio::redirect_error(asio::use_awaitable, error);
}

std::string currentDate() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  gmtime_r(&now, &parts);
  char text[32];
  return {text, std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &parts)};
}

/// Bytes of a request that the limits count. Gives them back when it dies.
class Bytes {
 public:
  explicit Bytes(Limits& limits) : limits_(limits) {}
  Bytes(const Bytes&) = delete;
  Bytes& operator=(const Bytes&) = delete;
  ~Bytes() { limits_.giveBytes(count_); }
  [[nodiscard]] bool take(std::size_t more) {
    if (!limits_.takeBytes(more)) return false;
    count_ += more;
    return true;
  }

 private:
  Limits& limits_;
  std::size_t count_ = 0;
};

/// The use of an address that the limits count.
class Entrance {
 public:
  explicit Entrance(Limits& limits) : limits_(limits) {}
  Entrance(const Entrance&) = delete;
  Entrance& operator=(const Entrance&) = delete;
  ~Entrance() {
    if (!key_.empty()) limits_.leave(key_);
  }
  [[nodiscard]] bool enter(const std::string& address) {
    const std::string key = limitKey(address);
    if (!limits_.enter(key)) return false;
    key_ = key;
    return true;
  }

 private:
  Limits& limits_;
  std::string key_;
};

}  // namespace

struct Connections::Impl {
  Impl(Loop& theLoop, Handler theHandler, ConnectionContext& theContext)
      : loop(theLoop), handler(std::move(theHandler)), context(theContext) {}

  /// A connection that waits for a request. It leaves the list when it dies.
  struct Idle : boost::intrusive::list_base_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>> {
    explicit Idle(asio::ip::tcp::socket& theSocket) : socket(theSocket) {}
    asio::ip::tcp::socket& socket;
  };

  template <class Stream>
  asio::awaitable<void> run(Stream stream, std::string peer);
  template <class Stream>
  asio::awaitable<void> serveRequests(Stream& stream, const std::string& peer);
  template <class Stream>
  asio::awaitable<bool> serveRequest(Stream& stream, beast::flat_buffer& buffer, const std::string& peer);
  template <class Stream>
  asio::awaitable<int> readBody(Stream& stream, beast::flat_buffer& buffer,
                                http::request_parser<http::buffer_body>& parser, Bytes& bytes, std::string& body);
  template <class Stream>
  asio::awaitable<bool> write(Stream& stream, const Answer& answer, unsigned version, bool keepsAlive);
  asio::awaitable<Answer> ask(service::Request request);

  Loop& loop;
  const Handler handler;
  ConnectionContext& context;
  boost::intrusive::list<Idle, boost::intrusive::constant_time_size<false>> idle;  // the longest idle first
};

template <class Stream>
asio::awaitable<void> Connections::Impl::run(Stream stream, std::string peer) {
  ++context.open;
  {
    // Connections of a proxy are not limited; the requests of its clients are.
    Entrance entrance(context.limits);
    bool isWelcome = context.proxies.contain(peer) || entrance.enter(peer);
    if constexpr (std::is_same_v<Stream, Secure>) {
      Error error;
      beast::get_lowest_layer(stream).expires_after(kLongestHandshake);
      if (isWelcome) co_await stream.async_handshake(asio::ssl::stream_base::server, into(error));
      isWelcome = isWelcome && !error;
    }
    if (isWelcome) co_await serveRequests(stream, peer);
    if constexpr (std::is_same_v<Stream, Secure>) {
      Error error;
      beast::get_lowest_layer(stream).expires_after(std::chrono::seconds(1));
      if (isWelcome) co_await stream.async_shutdown(into(error));
    }
    Error ignored;
    beast::get_lowest_layer(stream).socket().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
  }
  context.limits.closeConnection();
  --context.open;
}

template <class Stream>
asio::awaitable<void> Connections::Impl::serveRequests(Stream& stream, const std::string& peer) {
  for (bool keepsAlive = true; keepsAlive && !context.isDraining;) {
    char first = 0;
    Error error;
    beast::get_lowest_layer(stream).expires_after(kLongestIdle);
    {
      Idle entry(beast::get_lowest_layer(stream).socket());
      idle.push_back(entry);
      co_await stream.async_read_some(asio::buffer(&first, 1), into(error));
    }
    if (error) co_return;
    // The buffer lives until the client waits for us again.
    beast::flat_buffer buffer;
    buffer.commit(asio::buffer_copy(buffer.prepare(1), asio::buffer(&first, 1)));
    while (keepsAlive && buffer.size() > 0) keepsAlive = co_await serveRequest(stream, buffer, peer);
  }
}

/// Reads a request and answers it. Returns false if the connection must close.
template <class Stream>
asio::awaitable<bool> Connections::Impl::serveRequest(Stream& stream, beast::flat_buffer& buffer,
                                                      const std::string& peer) {
  http::request_parser<http::buffer_body> parser;
  parser.header_limit(kMostHeadBytes);
  parser.body_limit(context.settings.mostBodyBytes);
  Error error;
  beast::get_lowest_layer(stream).expires_after(kLongestHead);
  co_await http::async_read_header(stream, buffer, parser, into(error));
  const auto& head = parser.get();
  service::Request request;
  request.method = std::string(head.method_string());
  const bool isReadable = readTarget(head.target(), request);
  if (error == http::error::body_limit) {
    co_return co_await write(stream, context.settings.refuse(413, service::applicationOf(request)), 11, false);
  }
  if (error && error.category() != http::make_error_code(http::error::bad_method).category()) co_return false;
  if (error == http::error::end_of_stream || error == http::error::partial_message) co_return false;
  if (error || !isReadable) co_return co_await write(stream, context.settings.refuse(400, {}), 11, false);
  const unsigned version = head.version();
  const bool keepsAlive = parser.keep_alive() && !context.isDraining;
  request.eraseSecret = std::string(head["X-Kelvo-Erase"]);

  Bytes bytes(context.limits);
  Entrance entrance(context.limits);
  const std::string client = clientAddress(peer, std::string(head["X-Forwarded-For"]), context.proxies);
  int refusal = client != peer && !entrance.enter(client) ? 503 : 0;
  if (refusal == 0) {
    if (beast::iequals(head[http::field::expect], "100-continue")) {
      http::response<http::empty_body> proceed(http::status::continue_, version);
      co_await http::async_write(stream, proceed, into(error));
    }
    refusal = co_await readBody(stream, buffer, parser, bytes, request.body);
  }
  if (refusal < 0) co_return false;
  const std::string encoding(head[http::field::content_encoding]);
  if (refusal == 0 && !encoding.empty() && !beast::iequals(encoding, "identity")) refusal = 415;
  if (refusal > 0) {
    co_return co_await write(stream, context.settings.refuse(refusal, service::applicationOf(request)), version, false);
  }
  beast::get_lowest_layer(stream).expires_never();
  const Answer answer = co_await ask(std::move(request));
  co_return co_await write(stream, answer, version, keepsAlive && !context.isDraining);
}

/// Returns 0, the status that refuses the body, or -1 if the connection broke.
template <class Stream>
asio::awaitable<int> Connections::Impl::readBody(Stream& stream, beast::flat_buffer& buffer,
                                                 http::request_parser<http::buffer_body>& parser, Bytes& bytes,
                                                 std::string& body) {
  // Memory grows with what has arrived, whatever length the head announces.
  const std::size_t announced = parser.content_length() ? *parser.content_length() : kPieceBytes;
  std::string piece(std::clamp<std::size_t>(announced, 1, kPieceBytes), '\0');
  if (!parser.is_done() && !bytes.take(piece.size())) co_return 503;
  while (!parser.is_done()) {
    parser.get().body().data = piece.data();
    parser.get().body().size = piece.size();
    Error error;
    beast::get_lowest_layer(stream).expires_after(kLongestPiece);
    co_await http::async_read(stream, buffer, parser, into(error));
    if (error == http::error::need_buffer) error = {};
    if (error == http::error::body_limit) co_return 413;
    if (error) co_return error.category() == http::make_error_code(http::error::bad_chunk).category() ? 400 : -1;
    const std::size_t size = piece.size() - parser.get().body().size;
    if (!bytes.take(size)) co_return 503;
    body.append(piece, 0, size);
  }
  co_return 0;
}

asio::awaitable<Answer> Connections::Impl::ask(service::Request request) {
  auto start = [this, request = std::move(request)](auto completion) mutable {
    auto shared = std::make_shared<decltype(completion)>(std::move(completion));
    // Posted, because a completion must not run inside of its initiation.
    handler(std::move(request), [this, shared](Answer answer) {
      asio::post(loop.context(), [shared, answer = std::move(answer)]() mutable { (*shared)(std::move(answer)); });
    });
  };
  co_return co_await asio::async_initiate<decltype(asio::use_awaitable), void(Answer)>(std::move(start),
                                                                                       asio::use_awaitable);
}

template <class Stream>
asio::awaitable<bool> Connections::Impl::write(Stream& stream, const Answer& answer, unsigned version,
                                               bool keepsAlive) {
  http::response<http::span_body<const char>> response(static_cast<http::status>(answer.status), version);
  response.set(http::field::content_type, answer.contentType);
  response.set(http::field::date, currentDate());
  if (!answer.allow.empty()) response.set(http::field::allow, answer.allow);
  if (answer.retryAfter > 0) response.set(http::field::retry_after, std::to_string(answer.retryAfter));
  response.keep_alive(keepsAlive);
  response.body() = {answer.body.data(), answer.body.size()};
  response.prepare_payload();
  Error error;
  beast::get_lowest_layer(stream).expires_after(kLongestAnswer);
  co_await http::async_write(stream, response, into(error));
  co_return keepsAlive && !error;
}

Connections::Connections(Loop& loop, Handler handler, ConnectionContext& context)
    : impl_(std::make_unique<Impl>(loop, std::move(handler), context)) {}

Connections::~Connections() = default;

void Connections::serve(int socket, bool isIPv6, std::string peer, const std::shared_ptr<ssl_ctx_st>& tls) {
  auto& loop = impl_->loop.context();
  asio::ip::tcp::socket accepted(loop, isIPv6 ? asio::ip::tcp::v6() : asio::ip::tcp::v4(), socket);
  Error ignored;
  accepted.set_option(asio::ip::tcp::no_delay(true), ignored);
  Plain stream(std::move(accepted));
  if (!tls) return asio::co_spawn(loop, impl_->run(std::move(stream), std::move(peer)), asio::detached);
  SSL_CTX_up_ref(tls.get());
  asio::ssl::context context(tls.get());
  asio::co_spawn(loop, impl_->run(Secure(std::move(stream), context), std::move(peer)), asio::detached);
}

bool Connections::closeLongestIdle() {
  if (impl_->idle.empty()) return false;
  Error ignored;
  impl_->idle.front().socket.cancel(ignored);
  impl_->idle.pop_front();
  return true;
}

}  // namespace kelvo::server
