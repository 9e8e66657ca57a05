#include "kelvo-collector/http/Listener.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <utility>

#include "kelvo-collector/http/Access.h"
#include "kelvo-collector/http/Connection.h"
#include "kelvo-collector/http/Workers.h"

namespace kelvo::collector {
namespace {

/// Enough for twenty open pages, which keep up to seven connections each, and the hosts beside them.
constexpr std::size_t kThreads = 256;
constexpr std::size_t kLargestBody = 64U << 20U;
constexpr std::size_t kRequestsOfAConnection = 1'000'000;
constexpr std::chrono::seconds kKeepAlive{60};

thread_local Connection* servedConnection = nullptr;

/// A `Connection` as the HTTP library wants to see it.
class Wire final : public httplib::Stream {
 public:
  explicit Wire(Connection& connection) : connection_(connection) {}
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

/// Our threads as the HTTP library wants to see them.
class Tasks final : public httplib::TaskQueue {
 public:
  void enqueue(std::function<void()> task) override { workers_.add(std::move(task)); }
  void shutdown() override { workers_.finish(); }

 private:
  Workers workers_{kThreads};
};

}  // namespace

void Tallied::opened() noexcept {
  ++all;
  const std::size_t now = ++open;
  for (std::size_t known = most; known < now && !most.compare_exchange_weak(known, now);) {
  }
}

Listener::Listener(Tallied& tally, ssl_ctx_st* tls)
    : tally_(tally), tls_(tls), stopDescriptor_(eventfd(0, EFD_CLOEXEC)) {
  new_task_queue = [] { return std::make_unique<Tasks>().release(); };
  set_payload_max_length(kLargestBody);
  set_keep_alive_max_count(kRequestsOfAConnection);  // this and the next for the header that announces them
  set_keep_alive_timeout(kKeepAlive.count());
  set_tcp_nodelay(true);  // head and body leave in two writes
  set_default_headers({{"Content-Security-Policy", kContentSecurityPolicy},
                       {"X-Content-Type-Options", "nosniff"},
                       {"Cache-Control", "no-store"}});
  // Not the library's default, which lets two processes share one port.
  set_socket_options([](socket_t socket) {
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
}

Listener::~Listener() {
  close(stopDescriptor_);
}

void Listener::end() {
  eventfd_write(stopDescriptor_, 1);
  stop();
}

Connection& Listener::served() noexcept {
  return *servedConnection;
}

bool Listener::process_and_close_socket(socket_t socket) {
  Connection connection(socket, stopDescriptor_, tls_);
  tally_.opened();
  servedConnection = &connection;
  if (connection.open()) serve(connection);
  servedConnection = nullptr;
  --tally_.open;
  return true;
}

void Listener::serve(Connection& connection) {
  Wire wire(connection);
  while (connection.waitForRequest(kKeepAlive)) {
    bool closed = false;
    if (!process_request(wire, false, closed, nullptr) || closed) return;
  }
}

}  // namespace kelvo::collector
