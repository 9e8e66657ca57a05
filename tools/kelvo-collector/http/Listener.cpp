#include "kelvo-collector/http/Listener.h"

#include <httplib.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <thread>
#include <utility>

#include "kelvo-collector/http/Access.h"
#include "kelvo-collector/http/Connection.h"
#include "kelvo-collector/http/Workers.h"

namespace kelvo::collector {
namespace {

/// Enough for twenty open pages with up to seven connections each, and for the hosts.
constexpr std::size_t kMostThreads = 256;
constexpr int kBacklog = 512;
constexpr std::size_t kRequestsPerConnection = 1'000'000;
constexpr std::chrono::seconds kKeepAlive{60};

thread_local Connection* currentConnectionOfThread = nullptr;
thread_local bool isRefusing = false;  // the accepting thread found no worker for the connection

/// Adapts a `Connection` to the HTTP library's stream interface.
class ConnectionStream final : public httplib::Stream {
 public:
  explicit ConnectionStream(Connection& connection) : connection_(connection) {}
  bool is_readable() const override { return true; }
  bool is_writable() const override { return true; }
  ssize_t read(char* bytes, std::size_t size) override { return connection_.read(bytes, size); }
  ssize_t write(const char* bytes, std::size_t size) override { return connection_.write(bytes, size); }
  void get_remote_ip_and_port(std::string& ip, int& port) const override { ip = "127.0.0.1", port = 0; }
  void get_local_ip_and_port(std::string& ip, int& port) const override { ip = "127.0.0.1", port = 0; }
  socket_t socket() const override { return connection_.socket(); }

 private:
  Connection& connection_;
};

/// Sends status 503 without waiting, and closes. A client of TLS only sees that the connection ends.
void refuseAtOnce(socket_t socket, bool isTLS) {
  const std::string answer = bareAnswer("503 Service Unavailable");
  if (!isTLS) ::send(socket, answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  ::shutdown(socket, SHUT_WR);
  ::close(socket);
}

/// Adapts `Workers` to the HTTP library's task queue.
class ConnectionTasks final : public httplib::TaskQueue {
 public:
  void enqueue(std::function<void()> task) override {
    if (workers_.add(task)) return;
    isRefusing = true;
    task();
    isRefusing = false;
  }
  void shutdown() override { workers_.finish(); }

 private:
  Workers workers_{kMostThreads};
};

}  // namespace

void ConnectionCounts::opened() noexcept {
  ++total;
  const std::size_t now = ++open;
  for (std::size_t known = maximum; known < now && !maximum.compare_exchange_weak(known, now);) {
  }
}

/// The HTTP library's server, with its own connection handling replaced.
class Listener::Acceptor final : public httplib::Server {
 public:
  Acceptor(ConnectionCounts& counts, ssl_ctx_st* tls);
  ~Acceptor() override { close(stopDescriptor_); }

  int listenInThread(const std::string& host, int port);
  void stopAndJoin();

 private:
  bool process_and_close_socket(socket_t socket) override;
  void serve(Connection& connection);

  ConnectionCounts& counts_;
  ssl_ctx_st* tls_;
  int stopDescriptor_;  // becomes readable when the listener stops
  std::thread thread_;
};

Listener::Acceptor::Acceptor(ConnectionCounts& counts, ssl_ctx_st* tls)
    : counts_(counts), tls_(tls), stopDescriptor_(eventfd(0, EFD_CLOEXEC)) {
  new_task_queue = [] { return std::make_unique<ConnectionTasks>().release(); };
  set_payload_max_length(SIZE_MAX);  // the handlers count the bytes of a body while they read it
  // `serve` decides when a connection ends. The library only announces these limits in its Keep-Alive header.
  set_keep_alive_max_count(kRequestsPerConnection);
  set_keep_alive_timeout(kKeepAlive.count());
  set_tcp_nodelay(true);  // the library sends head and body in two writes
  set_default_headers({{"Content-Security-Policy", kContentSecurityPolicy},
                       {"X-Content-Type-Options", "nosniff"},
                       {"Cache-Control", "no-store"}});
  // Replaces the library's default, SO_REUSEPORT, which lets two processes share one port.
  set_socket_options([](socket_t socket) {
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
}

int Listener::Acceptor::listenInThread(const std::string& host, int port) {
  const int bound = port == 0 ? bind_to_any_port(host) : bind_to_port(host, port) ? port : 0;
  if (bound <= 0) return 0;
  ::listen(svr_sock_, kBacklog);  // the library lets five connections wait; a sixth would have to try again
  thread_ = std::thread([this] { listen_after_bind(); });
  while (!is_running()) std::this_thread::yield();  // the library ignores an earlier stop()
  return bound;
}

void Listener::Acceptor::stopAndJoin() {
  if (!thread_.joinable()) return;
  eventfd_write(stopDescriptor_, 1);
  stop();
  thread_.join();
}

bool Listener::Acceptor::process_and_close_socket(socket_t socket) {
  if (isRefusing) {
    refuseAtOnce(socket, tls_ != nullptr);
    return true;
  }
  Connection connection(socket, stopDescriptor_, tls_);
  counts_.opened();
  currentConnectionOfThread = &connection;
  if (connection.open()) serve(connection);
  currentConnectionOfThread = nullptr;
  counts_.closed();
  return true;
}

void Listener::Acceptor::serve(Connection& connection) {
  ConnectionStream stream(connection);
  std::chrono::milliseconds limit = Connection::kHeadLimit;
  for (; connection.waitForRequest(limit); limit = kKeepAlive) {
    bool closed = false;
    const bool goesOn = process_request(stream, false, closed, nullptr) && !closed;
    switch (connection.headFault()) {
      case Connection::HeadFault::TooLong: return connection.refuse("431 Request Header Fields Too Large");
      case Connection::HeadFault::TooLate: return connection.refuse("408 Request Timeout");
      case Connection::HeadFault::None: break;
    }
    if (!goesOn) return;
  }
}

Listener::Listener(ConnectionCounts& counts, ssl_ctx_st* tls) : acceptor_(std::make_unique<Acceptor>(counts, tls)) {}

Listener::~Listener() {
  stop();
}

httplib::Server& Listener::handlers() noexcept {
  return *acceptor_;
}

int Listener::start(const std::string& host, int port) {
  return acceptor_->listenInThread(host, port);
}

void Listener::stop() {
  acceptor_->stopAndJoin();
}

Connection& Listener::currentConnection() noexcept {
  return *currentConnectionOfThread;
}

}  // namespace kelvo::collector
