#pragma once

#include <functional>
#include <optional>
#include <string>

namespace kelvo {

/// What the service answered.
struct HTTPResponse {
  long statusCode = 0;
  std::string url;
  /// For log lines: the URL and the status code.
  [[nodiscard]] std::string description() const;
};

/// Why no answer came.
struct HTTPError {
  int code = 0;  ///< a CURLcode
  std::string localizedDescription;
};

/// As above; "(null)" without a response.
[[nodiscard]] std::string describe(const std::optional<HTTPResponse>& response);

/// An outcome: an error, or a response with its body (which may be empty).
using HTTPCompletion = std::function<void(std::optional<std::string> data, std::optional<HTTPResponse> response,
                                          std::optional<HTTPError> error)>;

/// True when there is no error and the status code is 200: what success means everywhere.
[[nodiscard]] bool succeeded(const std::optional<HTTPResponse>& response, const std::optional<HTTPError>& error);

}  // namespace kelvo
