#pragma once

#include <functional>
#include <optional>
#include <string>

#include "kelvo/Value.h"
#include "network/KLVHTTPSession.h"

namespace kelvo {

/// The one HTTP client: sends JSON requests to the service and hands the raw outcome back; it never interprets one.
///
/// Requests may be issued from any thread and return at once. A request that cannot be formed is logged and never
/// calls back; every other one calls back exactly once, on the client's callback queue.
class KLVPostman {
 public:
  /// A client of the endpoint that was read at load.
  KLVPostman();
  /// The process-wide HTTP session, made on first use.
  static KLVHTTPSession& sharedSession();

  /// `path` is the whole URL when it contains "https:", else it follows the base URL directly.
  void getDataFromURLPath(const std::string& path, HTTPCompletion completion);
  /// Headers of the caller replace those of the client. Without a body dictionary the body is empty.
  void postDataToURL(const std::string& path, const std::optional<Dictionary>& body,
                     const std::optional<Dictionary>& headerFields, HTTPCompletion completion);
  /// Kept: always appends `path` to the base URL, even when it is a whole URL.
  void makeDeleteRequestToURLPath(const std::string& path, const std::optional<Dictionary>& headerFields,
                                  HTTPCompletion completion);

  [[nodiscard]] const std::string& baseURL() const noexcept { return baseURL_; }

 private:
  static void send(HTTPRequest request, HTTPCompletion completion);

  std::string baseURL_;
};

}  // namespace kelvo
