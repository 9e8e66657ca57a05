#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "util/KLVHTTPTypes.h"

namespace kelvo {

struct HTTPRequest {
  std::string method;
  std::string url;  ///< empty when no service endpoint is configured: the request then ends in an error
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
};

/// HTTP transport on libcurl's multi interface: one network thread of its own, started by the first request,
/// connection reuse, HTTP/2, at most 6 connections to one host (further requests wait), 30 seconds without
/// progress end a request. Proxies come from the environment, but never for a loopback host. Cleartext is refused
/// unless the host is a loopback address; redirects, 10 at most, keep to the same rule.
///
/// At process exit the thread is parked before the TLS library takes itself down; requests that are still open then
/// never call back. In a forked child every request is dropped.
class KLVHTTPSession {
 public:
  KLVHTTPSession();
  /// With another limit than 30 seconds without progress.
  explicit KLVHTTPSession(std::chrono::seconds limit);
  KLVHTTPSession(const KLVHTTPSession&) = delete;
  KLVHTTPSession& operator=(const KLVHTTPSession&) = delete;
  /// Requests under way still run to their end and call back.
  ~KLVHTTPSession();

  /// Returns at once. `completion` is called exactly once on a concurrent callback queue, so that a slow one holds
  /// up neither the network thread nor other callbacks. A body over 64 MiB is an error.
  void start(HTTPRequest request, HTTPCompletion completion);

  /// Requests whose completion has not returned yet.
  [[nodiscard]] std::size_t unfinished() const;

  /// Parks the network threads for good and waits for that, half a second at most. Runs by itself before the TLS
  /// library takes itself down; the last exit hook calls it for a process that ends before the TLS library is set up.
  static void parkAtExit();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace kelvo
