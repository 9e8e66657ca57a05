#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace kelvo {

/// The status and URL of an HTTP response. The body is passed separately.
struct HTTPResponse {
  long statusCode = 0;
  std::string url;
  /// The time that a 429 or 503 asks the client to wait from now on: 0 seconds to 1 hour. nullopt if it names no valid
  /// time, and for every other status.
  std::optional<std::chrono::seconds> retryAfter = std::nullopt;
  /// Returns the URL and the status code, for log lines.
  [[nodiscard]] std::string description() const;
};

/// The reason why a request ended without a response.
struct HTTPError {
  int code = 0;  ///< a CURLcode
  std::string localizedDescription;
  bool isFinal = false;  ///< every later request to the service fails for the same reason
};

/// Returns the response's description, "(null)" without a response.
[[nodiscard]] std::string describe(const std::optional<HTTPResponse>& response);

/// Receives the outcome of a request: either an error, or a response with its body (which may be empty).
using HTTPCompletion =
    std::function<void(const std::optional<std::string>& data, const std::optional<HTTPResponse>& response,
                       const std::optional<HTTPError>& error)>;

/// The arguments of an `HTTPCompletion`.
struct HTTPOutcome {
  std::optional<std::string> data;
  std::optional<HTTPResponse> response;
  std::optional<HTTPError> error;
};

/// Returns true if there is no error and the status code is 200. The library knows no other success.
[[nodiscard]] bool succeeded(const std::optional<HTTPResponse>& response, const std::optional<HTTPError>& error);

}  // namespace kelvo
