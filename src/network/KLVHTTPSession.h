#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "network/HTTPGroup.h"
#include "platform/SlicedText.h"
#include "util/KLVAnswerLimits.h"
#include "util/KLVHTTPTypes.h"

namespace kelvo {

struct HTTPRequest {
  std::string method;
  std::string url;  ///< percent-encoded; empty if no service endpoint is configured: the request then ends in an error
  std::vector<std::pair<std::string, std::string>> headers;
  SlicedText body;
  KLVAnswerLimits limits = kUploadLimits;
  std::shared_ptr<HTTPGroup> group = nullptr;  ///< may be nullptr
  std::string endpoint = {};                   ///< the part of `url` that the host has configured; empty for none
};

/// Sends HTTP requests through libcurl, on a network thread of its own that the first request starts. That thread also
/// loads libcurl (`Curl::load`). Without libcurl, every request ends in an error.
///
/// - A request whose `endpoint` is not a URL ends in an error. One whose `url` is not a URL is logged and never calls
/// back.
/// - It reuses connections, speaks HTTP/2, and opens at most 6 connections to one host; further requests wait.
/// - A request that exceeds its `limits` ends in an error, and so does one that cannot connect within 30 seconds.
/// - Proxies come from the environment, but never for a loopback host.
/// - Cleartext is refused unless the host is a loopback address. Redirects (10 at most) obey the same rule.
/// - A redirected POST keeps its method and body (307, 308), or ends in an error (301, 302, 303).
///
/// At process exit the network thread is parked (ExitParking.h). Requests that are unfinished then never call back. In
/// a forked child every request is dropped. Thread-safe.
class KLVHTTPSession {
 public:
  KLVHTTPSession();
  /// `limit` replaces every limit of 30 seconds.
  explicit KLVHTTPSession(std::chrono::seconds limit);
  KLVHTTPSession(const KLVHTTPSession&) = delete;
  KLVHTTPSession& operator=(const KLVHTTPSession&) = delete;
  /// Does not block. Unfinished requests still run to their end and call back.
  ~KLVHTTPSession();

  /// Returns at once. `completion` is called once at most, on a concurrent callback queue, so a slow completion
  /// delays neither the network thread nor other completions.
  void start(HTTPRequest request, HTTPCompletion completion);

  /// Ends the requests of closed groups, with an error, as `HTTPGroup` describes. Returns at once.
  void endClosedGroups();

  /// Returns the number of requests whose completion has not returned yet.
  [[nodiscard]] std::size_t unfinished() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace kelvo
