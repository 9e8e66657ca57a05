#include "network/HTTPURL.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>

#include <memory>

#include "network/Curl.h"

namespace kelvo {
namespace {

constexpr std::string_view kAllowed =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~!$&'()*,;=:@/?";

/// Returns the positions of the brackets around an IPv6 host, npos twice if there are none.
std::pair<std::size_t, std::size_t> hostBrackets(std::string_view text) {
  constexpr std::string_view kAuthority = "://";
  constexpr auto kNone = std::string_view::npos;
  const auto authority = text.find(kAuthority);
  if (authority == kNone) return {kNone, kNone};
  const auto open = authority + kAuthority.size();
  const auto close = text.find_first_of("]/?", open);
  if (close == kNone || text[open] != '[' || text[close] != ']') return {kNone, kNone};
  return {open, close};
}

std::string part(CURLU* url, CURLUPart what) {
  char* text = nullptr;
  if (curl().url_get(url, what, &text, 0) != CURLUE_OK) return {};
  std::string result(text);
  curl().free(text);
  return result;
}

}  // namespace

std::string percentEncoded(std::string_view text) {
  constexpr char kHexadecimal[] = "0123456789ABCDEF";
  const auto [open, close] = hostBrackets(text);
  std::string result;
  result.reserve(text.size());
  for (std::size_t index = 0; index < text.size(); ++index) {
    const char character = text[index];
    if (index == open || index == close || kAllowed.find(character) != std::string_view::npos) {
      result += character;
      continue;
    }
    const auto byte = static_cast<unsigned char>(character);
    result += '%';
    result += kHexadecimal[byte >> 4];
    result += kHexadecimal[byte & 0x0F];
  }
  return result;
}

std::string withoutCredentials(std::string url) {
  constexpr std::string_view kAuthority = "://";
  const auto scheme = url.find(kAuthority);
  const auto from = scheme == std::string::npos ? 0 : scheme + kAuthority.size();
  const auto at = url.rfind('@');
  if (at != std::string::npos && at > from) url.replace(from, at - from, "...");
  return url;
}

std::optional<HTTPURL> HTTPURL::parse(const std::string& text) {
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl().url(), curl().url_cleanup);
  if (url == nullptr || curl().url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) return std::nullopt;
  HTTPURL result{part(url.get(), CURLUPART_SCHEME), part(url.get(), CURLUPART_HOST)};
  if (result.host.empty()) return std::nullopt;
  return result;
}

bool HTTPURL::isLoopback() const {
  if (strcasecmp(host.c_str(), "localhost") == 0) return true;
  if (in_addr address{}; inet_pton(AF_INET, host.c_str(), &address) == 1) {
    return ntohl(address.s_addr) >> 24 == IN_LOOPBACKNET;
  }
  if (host.size() < 2 || host.front() != '[') return false;
  in6_addr address{};
  return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &address) == 1 && IN6_IS_ADDR_LOOPBACK(&address);
}

bool HTTPURL::exposesCleartext() const {
  return strcasecmp(scheme.c_str(), "https") != 0 && !isLoopback();
}

}  // namespace kelvo
