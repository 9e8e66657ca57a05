#include "network/HTTPURL.h"

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

}  // namespace kelvo
