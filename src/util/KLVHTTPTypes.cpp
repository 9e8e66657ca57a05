#include "util/KLVHTTPTypes.h"

#include <fmt/format.h>

namespace kelvo {
namespace {
constexpr long kStatusOK = 200;
}

std::string HTTPResponse::description() const {
  return fmt::format("{} (status {})", url, statusCode);
}

std::string describe(const std::optional<HTTPResponse>& response) {
  return response ? response->description() : "(null)";
}

bool succeeded(const std::optional<HTTPResponse>& response, const std::optional<HTTPError>& error) {
  return !error && response && response->statusCode == kStatusOK;
}

}  // namespace kelvo
