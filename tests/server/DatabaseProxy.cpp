#include "DatabaseProxy.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>

namespace kelvo::test {
namespace {

std::mutex resolverMutex;
std::condition_variable resolverChanged;
bool isResolverDead = false;
int waitingForResolver = 0;

}  // namespace

DeadNameServer::DeadNameServer() {
  const std::lock_guard lock(resolverMutex);
  isResolverDead = true;
}

DeadNameServer::~DeadNameServer() {
  const std::lock_guard lock(resolverMutex);
  isResolverDead = false;
  resolverChanged.notify_all();
}

int DeadNameServer::waiting() {
  const std::lock_guard lock(resolverMutex);
  return waitingForResolver;
}

/// Replaces the one of the C library, also for libpq.
extern "C" [[gnu::visibility("default")]] int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                                                          addrinfo** found) {
  using Resolve = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
  static const auto resolve = reinterpret_cast<Resolve>(dlsym(RTLD_NEXT, "getaddrinfo"));
  if (node == nullptr || std::strcmp(node, kSlowHost) != 0) return resolve(node, service, hints, found);
  std::unique_lock lock(resolverMutex);
  ++waitingForResolver;
  resolverChanged.wait(lock, [] { return !isResolverDead; });
  --waitingForResolver;
  return resolve("127.0.0.1", service, hints, found);
}

DatabaseProxy::DatabaseProxy(std::string word, std::string replacement)
    : word_(std::move(word)), replacement_(std::move(replacement)), listener_(::socket(AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  bind(listener_, reinterpret_cast<sockaddr*>(&address), size);
  listen(listener_, SOMAXCONN);
  getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { accept(); });
}

DatabaseProxy::~DatabaseProxy() {
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  cut();
  for (std::thread& pump : pumps_) pump.join();
  for (const int socket : sockets_) close(socket);
  close(listener_);
}

std::string DatabaseProxy::database() const {
  return std::string("host=") + kSlowHost + " port=" + std::to_string(port_) + " user=kelvo dbname=kelvo";
}

void DatabaseProxy::cut() {
  const std::lock_guard lock(mutex_);
  for (const int socket : sockets_) shutdown(socket, SHUT_RDWR);
}

void DatabaseProxy::accept() {
  sockaddr_un database{};
  database.sun_family = AF_UNIX;
  const std::string path = std::string(std::getenv("PGHOST")) + "/.s.PGSQL.5432";
  std::strncpy(database.sun_path, path.c_str(), sizeof database.sun_path - 1);
  for (int client = 0; (client = ::accept(listener_, nullptr, nullptr)) >= 0;) {
    const int server = ::socket(AF_UNIX, SOCK_STREAM, 0);
    connect(server, reinterpret_cast<sockaddr*>(&database), sizeof database);
    const std::lock_guard lock(mutex_);
    sockets_.insert(sockets_.end(), {client, server});
    pumps_.emplace_back([this, client, server] { pump(client, server); });
    pumps_.emplace_back([this, client, server] { pump(server, client); });
  }
}

void DatabaseProxy::pump(int from, int to) {
  std::string bytes(1U << 16U, '\0');
  for (ssize_t size = 0; (size = recv(from, bytes.data(), bytes.size(), 0)) > 0;) {
    std::string text = bytes.substr(0, static_cast<std::size_t>(size));
    if (const auto at = text.find(word_); at != std::string::npos) text.replace(at, word_.size(), replacement_);
    for (std::size_t sent = 0; sent < text.size();) {
      const ssize_t more = ::send(to, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
      if (more <= 0) break;
      sent += static_cast<std::size_t>(more);
    }
  }
  shutdown(from, SHUT_RDWR);
  shutdown(to, SHUT_RDWR);
}

}  // namespace kelvo::test
