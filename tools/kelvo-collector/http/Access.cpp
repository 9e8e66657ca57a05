#include "kelvo-collector/http/Access.h"

#include <arpa/inet.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cctype>
#include <string>

namespace kelvo::collector {

bool isLoopbackHost(std::string_view host) {
  std::string name(host);
  const auto colon = name.rfind(':');
  if (colon != std::string::npos && name.find(']', colon) == std::string::npos) {
    const bool isPort = std::all_of(name.begin() + static_cast<std::ptrdiff_t>(colon) + 1, name.end(),
                                    [](unsigned char digit) { return std::isdigit(digit) != 0; });
    if (!isPort) return false;
    name.resize(colon);
  }
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  if (name == "localhost" || name == "[::1]") return true;
  in_addr address{};
  return inet_pton(AF_INET, name.c_str(), &address) == 1 && (ntohl(address.s_addr) >> 24U) == 127;
}

bool isOwnOrigin(std::string_view origin, std::string_view host, bool tls) {
  return origin.empty() || origin == (tls ? "https://" : "http://") + std::string(host);
}

bool isForeignSite(std::string_view site) {
  return site == "cross-site" || site == "same-site";
}

bool carriesToken(std::string_view authorization, std::string_view queryToken, std::string_view token) {
  constexpr std::string_view kBearer = "Bearer ";
  const auto given =
      authorization.substr(0, kBearer.size()) == kBearer ? authorization.substr(kBearer.size()) : queryToken;
  return given.size() == token.size() && CRYPTO_memcmp(given.data(), token.data(), token.size()) == 0;
}

}  // namespace kelvo::collector
