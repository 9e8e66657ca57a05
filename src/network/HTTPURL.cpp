#include "network/HTTPURL.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>

#include <memory>

#include "network/Curl.h"

namespace kelvo {
namespace {

std::string part(CURLU* url, CURLUPart what) {
  char* text = nullptr;
  if (curl().url_get(url, what, &text, 0) != CURLUE_OK) return {};
  std::string result(text);
  curl().free(text);
  return result;
}

}  // namespace

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
