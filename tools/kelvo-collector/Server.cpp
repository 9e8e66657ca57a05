#include "kelvo-collector/Server.h"

#include <httplib.h>
#include <openssl/ssl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>

#include "kelvo-collector/Connection.h"
#include "kelvo-collector/Service.h"
#include "kelvo-collector/ServiceState.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t kThreads = 64;
constexpr std::size_t kLargestBody = 64U << 20U;
constexpr std::size_t kRequestsOfAConnection = 1'000'000;
constexpr std::chrono::seconds kKeepAlive{60};
constexpr const char* kHost = "127.0.0.1";
constexpr const char* kJSONType = "application/json";

/// A `Connection` as the HTTP library wants to see it.
class Wire final : public httplib::Stream {
 public:
  explicit Wire(Connection& connection) : connection_(connection) {}
  bool is_readable() const override { return true; }
  bool is_writable() const override { return true; }
  ssize_t read(char* bytes, std::size_t size) override { return connection_.read(bytes, size); }
  ssize_t write(const char* bytes, std::size_t size) override { return connection_.write(bytes, size); }
  void get_remote_ip_and_port(std::string& ip, int& port) const override { ip = kHost, port = 0; }
  void get_local_ip_and_port(std::string& ip, int& port) const override { ip = kHost, port = 0; }
  socket_t socket() const override { return connection_.socket(); }

 private:
  Connection& connection_;
};

/// How many connections there are, were at most, and have been.
struct Tally {
  std::atomic<std::size_t> open{0};
  std::atomic<std::size_t> most{0};
  std::atomic<std::size_t> all{0};

  void opened() noexcept {
    ++all;
    const std::size_t now = ++open;
    for (std::size_t known = most; known < now && !most.compare_exchange_weak(known, now);) {
    }
  }
};

/// The connection that the calling thread serves.
thread_local Connection* servedConnection = nullptr;

/// The HTTP library's server over connections of our own, which can be broken and stop at once.
class Listener final : public httplib::Server {
 public:
  Listener(Tally& tally, ssl_ctx_st* tls) : tally_(tally), tls_(tls), stopDescriptor_(eventfd(0, EFD_CLOEXEC)) {
    new_task_queue = [] { return std::make_unique<httplib::ThreadPool>(kThreads).release(); };
    set_payload_max_length(kLargestBody);
    set_keep_alive_max_count(kRequestsOfAConnection);  // this and the next for the header that announces them
    set_keep_alive_timeout(kKeepAlive.count());
    set_tcp_nodelay(true);  // head and body leave in two writes
    // Not the library's default, which lets two processes share one port.
    set_socket_options([](socket_t socket) {
      const int yes = 1;
      setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
  }
  ~Listener() override { close(stopDescriptor_); }

  void end() {
    eventfd_write(stopDescriptor_, 1);
    stop();
  }

 private:
  bool process_and_close_socket(socket_t socket) override {
    Connection connection(socket, stopDescriptor_, tls_);
    tally_.opened();
    servedConnection = &connection;
    if (connection.open()) serve(connection);
    servedConnection = nullptr;
    --tally_.open;
    return true;
  }

  void serve(Connection& connection) {
    Wire wire(connection);
    while (connection.waitForRequest(kKeepAlive)) {
      bool closed = false;
      if (!process_request(wire, false, closed, nullptr) || closed) return;
    }
  }

  Tally& tally_;
  ssl_ctx_st* tls_;
  int stopDescriptor_;
};

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

/// Headers as sent; what the HTTP library adds about the connection is left out.
Dictionary headersOf(const httplib::Request& request) {
  Dictionary headers;
  for (const auto& [name, value] : request.headers) {
    if (name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT") continue;
    std::string lower = name;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    headers.set(lower, value);
  }
  return headers;
}

ReceivedRequest received(const httplib::Request& request, const std::string& body) {
  ReceivedRequest result;
  result.time = std::chrono::duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
  result.method = request.method;
  const auto mark = request.target.find('?');
  result.path = request.target.substr(0, mark);
  if (mark != std::string::npos) result.query = request.target.substr(mark + 1);
  result.headers = headersOf(request);
  result.body = body;
  return result;
}

void send(const Reply& reply, httplib::Response& response) {
  response.status = reply.status;
  if (!reply.allow.empty()) response.set_header("Allow", reply.allow);
  response.set_content(jsonText(reply.body).value_or("{}"), kJSONType);
}

void sendCutShort(int status, httplib::Response& response) {
  constexpr std::string_view begun = R"({"hash": ")";
  response.status = status;
  response.set_content_provider(4096, kJSONType, [begun](std::size_t, std::size_t, httplib::DataSink& sink) {
    sink.write(begun.data(), begun.size());
    return false;
  });
}

/// Does what `script` says; `answer` is what the service says itself.
void play(const Script& script, const Reply& answer, httplib::Response& response) {
  switch (script.kind()) {
    case Script::Kind::Answer: response.status = script.status(); return response.set_content(script.body(), kJSONType);
    case Script::Kind::Late:
      if (!servedConnection->stay(script.delay())) return servedConnection->cut();
      return send(answer, response);
    case Script::Kind::CutShort: return sendCutShort(script.status(), response);
    case Script::Kind::Never: servedConnection->stay(std::nullopt); return servedConnection->cut();
    case Script::Kind::Cut:
    case Script::Kind::LoseAnswer: return servedConnection->cut();
  }
}

}  // namespace

struct Server::Impl {
  Impl(std::unique_ptr<Store> ownStoreOrNone, std::unique_ptr<ServiceState> ownStateOrNone, Store& theStore,
       ServiceState& theState)
      : ownStore(std::move(ownStoreOrNone)), ownState(std::move(ownStateOrNone)), store(theStore), state(theState) {}

  int start(int port, TLSContext context);
  void route(httplib::Server& http);
  void handleDebug(const Question& question, httplib::Response& response);
  void handle(const httplib::Request& request, const std::string& body, httplib::Response& response);

  std::unique_ptr<Store> ownStore;
  std::unique_ptr<ServiceState> ownState;
  Store& store;
  ServiceState& state;

  Tally tally;
  TLSContext tls;
  std::unique_ptr<Listener> listener;
  std::thread thread;

  std::mutex mutex;  // guards what follows
  std::string baseURL;
  ScriptBook scripts;
};

void Server::Impl::route(httplib::Server& http) {
  const httplib::Server::Handler all = [this](const auto& request, auto& response) {
    handle(request, request.body, response);
  };
  http.Get(".*", all).Put(".*", all).Patch(".*", all).Delete(".*", all).Options(".*", all);
  // Read by ourselves: the library would take a body without a content type for a form, and refuse a large one.
  http.Post(".*", [this](const auto& request, auto& response, const httplib::ContentReader& reader) {
    std::string body;
    const auto append = [&body](const char* bytes, std::size_t size) { return body.append(bytes, size), true; };
    if (reader(append)) handle(request, body, response);
  });
  // Without a length there is no body; the library would wait for one until the connection ends.
  http.set_pre_routing_handler([this](const auto& request, auto& response) {
    if (request.has_header("Content-Length") || request.has_header("Transfer-Encoding")) {
      return httplib::Server::HandlerResponse::Unhandled;
    }
    handle(request, {}, response);
    return httplib::Server::HandlerResponse::Handled;
  });
  http.set_error_handler([](const auto&, auto& response) {
    const bool ours = response.has_header("Content-Type");
    if (!ours) send({response.status, {{"error", "this is no request that can be served"}}, {}, {}, {}}, response);
  });
}

int Server::Impl::start(int port, TLSContext context) {
  auto fresh = std::make_unique<Listener>(tally, context.get());
  route(*fresh);
  const int bound = port == 0 ? fresh->bind_to_any_port(kHost) : fresh->bind_to_port(kHost, port) ? port : 0;
  if (bound <= 0) return 0;

  tls = std::move(context);
  listener = std::move(fresh);
  thread = std::thread([running = listener.get()] { running->listen_after_bind(); });
  while (!listener->is_running()) std::this_thread::yield();  // stopping works from then on only
  const std::lock_guard lock(mutex);
  baseURL = std::string(tls ? "https://" : "http://") + kHost + ":" + std::to_string(bound);
  return bound;
}

void Server::Impl::handleDebug(const Question& question, httplib::Response& response) {
  Reply answer = reply(question, state, store);
  if (answer.change) {
    const std::lock_guard lock(mutex);
    scripts.set(answer.change->fragment, std::move(answer.change->scripts));
  }
  send(answer, response);
}

void Server::Impl::handle(const httplib::Request& request, const std::string& body, httplib::Response& response) {
  const Question question{request.method, request.path, {request.params.begin(), request.params.end()}, body};
  if (isDebugPath(request.path)) return handleDebug(question, response);

  const auto script = [&] {
    const std::lock_guard lock(mutex);
    return scripts.take(request.target);
  }();
  const bool serves = !script || script->serves();
  const bool answers = !script || script->answers();

  Reply answer;
  if (serves) answer = reply(question, state, store);
  ReceivedRequest arrived = received(request, body);
  if (answers) arrived.status = serves ? answer.status : script->status();
  if (!store.add(arrived, answer.chunkOf)) return send({500, {{"error", "the store failed"}}, {}, {}, {}}, response);
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
  if (!impl_->listener) return;
  impl_->listener->end();
  impl_->thread.join();
  impl_->listener.reset();
  impl_->tls.reset();
}

std::string Server::baseURL() const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->baseURL;
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
  const std::lock_guard lock(impl_->mutex);
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
  return impl_->tally.most;
}
std::size_t Server::numberOfConnections() const {
  return impl_->tally.all;
}

}  // namespace kelvo::collector
