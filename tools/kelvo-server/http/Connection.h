#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include "kelvo-server/http/Limits.h"
#include "kelvo-server/http/Listener.h"
#include "kelvo-server/http/Networks.h"

struct ssl_ctx_st;

namespace kelvo::server {

/// What all connections of a listener share.
struct ConnectionContext {
  Limits& limits;
  const ListenerSettings settings;
  const Networks proxies{settings.proxies};
  std::atomic<bool> isDraining{false};
  std::atomic<std::size_t> open{0};
};

/// The connections of one listener on one loop. Thread: the loop's.
class Connections {
 public:
  Connections(Loop& loop, Handler handler, ConnectionContext& context);
  ~Connections();
  Connections(const Connections&) = delete;
  Connections& operator=(const Connections&) = delete;

  /// Takes over an accepted socket and speaks with it until it closes. `peer` is its address. `tls` is null for
  /// cleartext.
  void serve(int socket, bool isIPv6, std::string peer, const std::shared_ptr<ssl_ctx_st>& tls);
  /// Closes the connection that has waited for a request the longest. Returns false if none waits.
  bool closeLongestIdle();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kelvo::server
