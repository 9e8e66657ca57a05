#include "kelvo-server/http/Listener.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <stdexcept>
#include <utility>

#include "kelvo-server/http/Connection.h"
#include "kelvo-server/http/TLS.h"
#include "kelvo-server/loop/Loop.h"
#include "platform/ThreadSafety.h"

namespace kelvo::server {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using Error = boost::system::error_code;

// After an accept that failed, for example because the process has no descriptor left.
constexpr std::chrono::milliseconds kPause{100};

}  // namespace

// The loops stop before this dies, so their handlers may keep pointers to it.
struct Listener::Impl {
  Impl(std::vector<Loop*> theLoops, std::vector<Handler> handlers, Limits& limits, ListenerSettings settings)
      : loops(std::move(theLoops)), context{limits, std::move(settings)}, acceptor(loops.front()->context()) {
    for (std::size_t i = 0; i < loops.size(); ++i) {
      connections.push_back(std::make_unique<Connections>(*loops[i], std::move(handlers[i]), context));
    }
  }

  int start();
  void accept();
  void hand(tcp::socket socket);

  const std::vector<Loop*> loops;
  ConnectionContext context;
  std::vector<std::unique_ptr<Connections>> connections;  // one for each loop
  tcp::acceptor acceptor;
  std::size_t next = 0;  // loop that gets the next connection
  Mutex mutex;
  std::shared_ptr<ssl_ctx_st> tls GUARDED_BY(mutex);
};

int Listener::Impl::start() {
  const auto& settings = context.settings;
  if (!settings.certificate.empty()) {
    const Lock lock(mutex);
    tls = makeTLS(settings.certificate, settings.key);
  }
  Error error;
  const auto address = asio::ip::make_address(settings.address, error);
  const tcp::endpoint endpoint(address, settings.port);
  if (!error) acceptor.open(endpoint.protocol(), error);
  if (!error) acceptor.set_option(tcp::acceptor::reuse_address(true), error);
  if (!error) acceptor.bind(endpoint, error);
  if (!error) acceptor.listen(tcp::acceptor::max_listen_connections, error);
  if (error) {
    throw std::runtime_error("cannot listen on " + settings.address + ":" + std::to_string(settings.port) + ": " +
                             error.message());
  }
  accept();
  return acceptor.local_endpoint().port();
}

void Listener::Impl::accept() {
  acceptor.async_accept([this](Error error, tcp::socket socket) {
    if (error == asio::error::operation_aborted || context.isDraining) return;
    if (error) {
      loops.front()->after(kPause, [this] { accept(); });
      return;
    }
    hand(std::move(socket));
    accept();
  });
}

void Listener::Impl::hand(tcp::socket socket) {
  Error error;
  const auto peer = socket.remote_endpoint(error);
  if (error) return;
  const std::size_t index = next++ % loops.size();
  if (context.limits.isCrowded()) {
    loops[index]->post([this, index] { connections[index]->closeLongestIdle(); });
  }
  if (!context.limits.openConnection()) return;
  std::shared_ptr<ssl_ctx_st> current;
  {
    const Lock lock(mutex);
    current = tls;
  }
  const bool isIPv6 = peer.protocol() == tcp::v6();
  const int descriptor = socket.release(error);
  loops[index]->post([this, index, descriptor, isIPv6, address = peer.address().to_string(), current] {
    connections[index]->serve(descriptor, isIPv6, address, current);
  });
}

Listener::Listener(std::vector<Loop*> loops, std::vector<Handler> handlers, Limits& limits, ListenerSettings settings)
    : impl_(std::make_unique<Impl>(std::move(loops), std::move(handlers), limits, std::move(settings))) {}

Listener::~Listener() = default;

int Listener::start() {
  return impl_->start();
}

std::string Listener::reloadCertificate() {
  const auto& settings = impl_->context.settings;
  if (settings.certificate.empty()) return {};
  try {
    auto fresh = makeTLS(settings.certificate, settings.key);
    const Lock lock(impl_->mutex);
    impl_->tls = std::move(fresh);
    return {};
  } catch (const std::exception& error) {
    return error.what();
  }
}

void Listener::drain() {
  impl_->context.isDraining = true;
  impl_->loops.front()->post([this] {
    Error ignored;
    impl_->acceptor.close(ignored);
  });
  for (std::size_t i = 0; i < impl_->loops.size(); ++i) {
    // The others close behind their answer, because the context says that it drains.
    impl_->loops[i]->post([this, i] {
      while (impl_->connections[i]->closeLongestIdle()) {
      }
    });
  }
}

std::size_t Listener::open() const noexcept {
  return impl_->context.open;
}

}  // namespace kelvo::server
