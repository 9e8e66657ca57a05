#include "kelvo-collector/http/Server.h"

#include <fmt/chrono.h>
#include <httplib.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <optional>
#include <string_view>
#include <utility>

#include "kelvo-collector/debug/Debug.h"
#include "kelvo-collector/http/Access.h"
#include "kelvo-collector/http/Bell.h"
#include "kelvo-collector/http/Connection.h"
#include "kelvo-collector/http/Listener.h"
#include "kelvo-collector/http/Live.h"
#include "kelvo-collector/http/Page.h"
#include "kelvo-collector/http/Received.h"
#include "kelvo-service/Service.h"
#include "kelvo-service/ServiceState.h"
#include "platform/JSON.h"
#include "platform/ThreadSafety.h"

namespace kelvo::collector {
namespace {

using service::refusal;
using service::replyToErasure;

using std::chrono::milliseconds;

constexpr const char* kHost = "127.0.0.1";
constexpr const char* kJSONType = "application/json";
constexpr std::size_t kLargestBody = 64U << 20U;         // bytes
constexpr std::size_t kMostBodyBytes = 256U << 20U;      // of all bodies that arrive at one time
constexpr std::size_t kAnnouncedSizeOfCutAnswer = 4096;  // bytes; more than the few that are sent

struct TLSFreer {
  void operator()(ssl_ctx_st* context) const noexcept { SSL_CTX_free(context); }
};
using TLSContext = std::unique_ptr<ssl_ctx_st, TLSFreer>;

TLSContext tlsContext(const std::string& certificateFile, const std::string& keyFile) {
  TLSContext context(SSL_CTX_new(TLS_server_method()));
  if (!context || SSL_CTX_use_certificate_chain_file(context.get(), certificateFile.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context.get(), keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
    return nullptr;
  }
  return context;
}

/// Returns the current time for a Date header: "Sat, 21 Nov 2026 06:15:09 GMT".
std::string currentDate() {
  return fmt::format("{:%a, %d %b %Y %H:%M:%S} GMT", fmt::gmtime(std::time(nullptr)));
}

void send(const Reply& reply, httplib::Response& response) {
  response.status = reply.status;
  if (!reply.allow.empty()) response.set_header("Allow", reply.allow);
  response.set_content(jsonText(reply.body).value_or("{}"), kJSONType);
}

/// Answers without reading the rest of the request, so the connection ends.
void endWith(const Reply& reply, httplib::Response& response) {
  send(reply, response);
  response.set_header("Connection", "close");
  Listener::currentConnection().endAfterAnswer();
}

void sendCutShort(int status, httplib::Response& response) {
  constexpr std::string_view begun = R"({"hash": ")";
  response.status = status;
  const auto sendBeginning = [begun](std::size_t, std::size_t, httplib::DataSink& sink) {
    sink.write(begun.data(), begun.size());
    return false;
  };
  response.set_content_provider(kAnnouncedSizeOfCutAnswer, kJSONType, sendBeginning);
}

/// Answers as `script` says. `answer` is the service's own answer, for the scripts that send it.
void play(const Script& script, const Reply& answer, httplib::Response& response) {
  Connection& connection = Listener::currentConnection();
  if (script.delay().count() > 0 && !connection.staysOpen(script.delay())) return connection.cut();
  if (!script.location().empty()) response.set_header("Location", script.location());
  switch (script.kind()) {
    case Script::Kind::Answer: response.status = script.status(); return response.set_content(script.body(), kJSONType);
    case Script::Kind::Late: return send(answer, response);
    case Script::Kind::CutShort: return sendCutShort(script.status(), response);
    case Script::Kind::Never: connection.staysOpen(std::nullopt); return connection.cut();
    case Script::Kind::Cut:
    case Script::Kind::LoseAnswer: return connection.cut();
  }
}

/// The body of a request as it arrives, counted in `total` until it is destroyed.
class ArrivingBody {
 public:
  explicit ArrivingBody(std::atomic<std::size_t>& total) : total_(total) {}
  ~ArrivingBody() { total_ -= text_.size(); }
  ArrivingBody(const ArrivingBody&) = delete;
  ArrivingBody& operator=(const ArrivingBody&) = delete;

  /// Returns false if the body, or all bodies together, become too large.
  [[nodiscard]] bool append(const char* bytes, std::size_t size) {
    if (text_.size() + size > kLargestBody) {
      fault_ = {413, "a body has 64 MiB at most"};
    } else if (total_ + size > kMostBodyBytes) {
      fault_ = {503, "too many large bodies arrive at once"};
    }
    if (fault_.first != 0) return false;
    total_ += size;
    text_.append(bytes, size);
    return true;
  }
  [[nodiscard]] const std::string& text() const noexcept { return text_; }
  /// Returns the answer to a body that did not arrive whole.
  [[nodiscard]] Reply refused() const {
    return fault_.first == 0 ? refusal(400, "the body is incomplete or cannot be unpacked")
                             : refusal(fault_.first, fault_.second);
  }

 private:
  std::atomic<std::size_t>& total_;
  std::string text_;
  std::pair<int, const char*> fault_{0, nullptr};
};

}  // namespace

/// The one object behind a server. It composes the service and the debug paths, which do not know each other.
struct Server::Impl {
  Impl(std::unique_ptr<Store> ownStoreOrNone, std::unique_ptr<ServiceState> ownStateOrNone, Store& theStore,
       ServiceState& theState)
      : ownStore(std::move(ownStoreOrNone)), ownState(std::move(ownStateOrNone)), store(theStore), state(theState) {}

  int start(int port, TLSContext context);
  void stop();
  void route(httplib::Server& http);
  /// Returns the answer to a request that is not allowed, nullopt if it is allowed. Reads the head only.
  [[nodiscard]] std::optional<Reply> refusalOf(const httplib::Request& request) const;

  // Thread: the following are called on connection threads.
  void handle(const httplib::Request& request, const std::string& body, httplib::Response& response);
  void handleDebug(const httplib::Request& request, const Request& decoded, httplib::Response& response);
  void stream(const httplib::Request& request, httplib::Response& response);
  void handleService(const httplib::Request& request, const Request& decoded, httplib::Response& response);

  std::unique_ptr<Store> ownStore;
  std::unique_ptr<ServiceState> ownState;
  Store& store;
  ServiceState& state;

  std::string token;  // set while the listener does not run; empty for none
  std::atomic<std::size_t> bodyBytes{0};
  ConnectionCounts counts;
  ScriptBook scripts;
  Bell bell;
  TLSContext tls;  // constant while the listener runs; null for plain HTTP
  std::unique_ptr<Listener> listener;

  Mutex mutex;
  std::string baseURL GUARDED_BY(mutex);
};

void Server::Impl::route(httplib::Server& http) {
  const httplib::Server::Handler all = [this](const auto& request, auto& response) {
    handle(request, request.body, response);
  };
  http.Get(".*", all).Patch(".*", all).Delete(".*", all).Options(".*", all);
  // We read the body ourselves: the library treats a body without a content type as a form, and refuses a large one.
  const httplib::Server::HandlerWithContentReader withBody = [this](const auto& request, auto& response,
                                                                    const httplib::ContentReader& reader) {
    // The library would hand the parts of a form to functions that we do not have.
    if (request.is_multipart_form_data()) return endWith(refusal(415, "the body is a form, not JSON"), response);
    ArrivingBody body(bodyBytes);
    if (reader([&body](const char* bytes, std::size_t size) { return body.append(bytes, size); })) {
      return handle(request, body.text(), response);
    }
    endWith(body.refused(), response);
  };
  http.Post(".*", withBody).Put(".*", withBody);
  // A request without a length has no body, but the library would wait for one until the connection closes.
  http.set_pre_routing_handler([this](const auto& request, auto& response) {
    Listener::currentConnection().endHead();
    if (const auto refused = refusalOf(request)) {
      endWith(*refused, response);
      return httplib::Server::HandlerResponse::Handled;
    }
    if (request.has_header("Content-Length") || request.has_header("Transfer-Encoding")) {
      return httplib::Server::HandlerResponse::Unhandled;
    }
    handle(request, {}, response);
    return httplib::Server::HandlerResponse::Handled;
  });
  http.set_post_routing_handler([](const auto&, auto& response) { response.set_header("Date", currentDate()); });
  http.set_error_handler([](const auto&, auto& response) {
    const bool ours = response.has_header("Content-Type");
    if (!ours) send(refusal(response.status, "this is no request that can be served"), response);
  });
}

int Server::Impl::start(int port, TLSContext context) {
  tls = std::move(context);
  listener = std::make_unique<Listener>(counts, tls.get());
  route(listener->handlers());
  const int bound = listener->start(kHost, port);
  if (bound == 0) {
    stop();
    return 0;
  }
  const Lock lock(mutex);
  baseURL = std::string(tls ? "https://" : "http://") + kHost + ":" + std::to_string(bound);
  return bound;
}

void Server::Impl::stop() {
  listener.reset();
  tls.reset();
}

std::optional<Reply> Server::Impl::refusalOf(const httplib::Request& request) const {
  const std::string host = request.get_header_value("Host");
  if (!isLoopbackHost(host)) return refusal(403, "the collector answers to loopback names only");
  const bool isForeign = !isOwnOrigin(request.get_header_value("Origin"), host, tls != nullptr) ||
                         isForeignSite(request.get_header_value("Sec-Fetch-Site"));
  if (isForeign) return refusal(403, "no other web page may ask the collector");
  if (token.empty() || !isDebugPath(request.path)) return std::nullopt;
  if (carriesToken(request.get_header_value("Authorization"), request.get_param_value("token"), token)) {
    return std::nullopt;
  }
  return refusal(401, "this path needs the token that the collector printed at its start");
}

void Server::Impl::handle(const httplib::Request& request, const std::string& body, httplib::Response& response) {
  const Request decoded{request.method,
                        request.path,
                        {request.params.begin(), request.params.end()},
                        body,
                        request.get_header_value("X-Kelvo-Erase")};
  if (isDebugPath(request.path)) return handleDebug(request, decoded, response);
  const bool reads = request.method == "GET" || request.method == "HEAD";
  if (const PageFile* file = reads ? pageFile(request.path) : nullptr) {
    return response.set_content(file->content.data(), file->content.size(), contentTypeOf(file->name));
  }
  handleService(request, decoded, response);
}

void Server::Impl::handleDebug(const httplib::Request& request, const Request& decoded, httplib::Response& response) {
  DebugReply answer = debugReply(decoded, {state, store, scripts});
  if (answer.effect == DebugReply::Effect::ServiceChanged) bell.ringForServiceChange();
  if (answer.effect == DebugReply::Effect::StoreReset) bell.ringForReset();
  if (answer.delivery == DebugReply::Delivery::Stream && request.method == "GET") return stream(request, response);
  if (answer.delivery == DebugReply::Delivery::Wait) {
    auto reply = waitForEvents(decoded, store, bell, Listener::currentConnection());
    if (!reply) return Listener::currentConnection().cut();
    answer.reply = std::move(*reply);
  }
  send(answer.reply, response);
}

void Server::Impl::stream(const httplib::Request& request, httplib::Response& response) {
  // The stream begins before its answer is sent: a client that loads everything once it has the answer misses nothing.
  EventStream events(store, bell, request.get_header_value("Last-Event-ID"));
  response.set_chunked_content_provider("text/event-stream", [events](std::size_t, httplib::DataSink& sink) mutable {
    const auto write = [&sink](const std::string& text) { return sink.write(text.data(), text.size()); };
    events.serve(Listener::currentConnection(), write);
    return false;  // closes the connection
  });
}

void Server::Impl::handleService(const httplib::Request& request, const Request& decoded, httplib::Response& response) {
  const auto script = scripts.take(request.method + " " + request.target);
  if (script && script->left() > 0) bell.ringForServiceChange();  // the open pages show how often it still applies
  const bool serves = !script || script->serves();
  const bool answers = !script || script->answers();

  Reply answer;
  if (serves) {
    auto reply = service::reply(decoded, state);
    answer = reply ? std::move(*reply) : unknownPath();
  }
  ReceivedRequest arrived = received(request, decoded);
  if (const auto& device = answer.accepted.erasureOf) {
    const auto outcome = store.erase(*device, decoded.eraseSecret, arrived.time);
    answer = outcome ? replyToErasure(*outcome) : refusal(500, "the store failed");
    if (outcome == Erasure::done) bell.ringForErasure();
  }
  if (answers) arrived.status = serves ? answer.status : script->status();
  if (!store.add(arrived, answer.accepted)) return send(refusal(500, "the store failed"), response);
  if (answer.accepted.chunkOf || answer.accepted.userOf) bell.ring();
  return script ? play(*script, answer, response) : send(answer, response);
}

Server::Server() {
  auto store = std::make_unique<Store>();
  auto state = std::make_unique<ServiceState>();
  Store& theStore = *store;
  ServiceState& theState = *state;
  impl_ = std::make_unique<Impl>(std::move(store), std::move(state), theStore, theState);
}

Server::Server(Store& store, ServiceState& state) : impl_(std::make_unique<Impl>(nullptr, nullptr, store, state)) {}

Server::~Server() {
  stop();
}

int Server::start(int port) {
  stop();
  return impl_->start(port, nullptr);
}

int Server::startTLS(const std::string& certificateFile, const std::string& keyFile, int port) {
  stop();
  auto context = tlsContext(certificateFile, keyFile);
  return context ? impl_->start(port, std::move(context)) : 0;
}

void Server::stop() {
  impl_->stop();
}

std::string Server::baseURL() const {
  const Lock lock(impl_->mutex);
  return impl_->baseURL;
}

void Server::setToken(std::string token) {
  impl_->token = std::move(token);
}

Store& Server::store() noexcept {
  return impl_->store;
}
ServiceState& Server::state() noexcept {
  return impl_->state;
}

void Server::answer(const std::string& pathFragment, Script script) {
  answerInTurn(pathFragment, {std::move(script)});
}

void Server::answerInTurn(const std::string& pathFragment, std::vector<Script> scripts) {
  impl_->scripts.set(pathFragment, std::move(scripts));
}

void Server::answerNormally(const std::string& pathFragment) {
  answerInTurn(pathFragment, {});
}

std::vector<ReceivedRequest> Server::requests(const std::string& pathFragment) const {
  return impl_->store.requests(pathFragment);
}
std::vector<Value> Server::chunks() const {
  return impl_->store.chunkBodies();
}
bool Server::waitFor(std::size_t count, const std::string& pathFragment, milliseconds timeout) const {
  return impl_->store.waitForRequests(count, pathFragment, timeout);
}
bool Server::waitForChunks(std::size_t count, milliseconds timeout) const {
  return impl_->store.waitForChunks(count, timeout);
}
std::size_t Server::maximumConcurrent() const {
  return impl_->counts.maximum;
}
std::size_t Server::numberOfConnections() const {
  return impl_->counts.total;
}

}  // namespace kelvo::collector
