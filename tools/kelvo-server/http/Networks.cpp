#include "kelvo-server/http/Networks.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <stdexcept>

namespace kelvo::server {
namespace {

constexpr unsigned kBits = 128;
constexpr unsigned kBitsBeforeIPv4 = 96;
constexpr std::size_t kBytes = 16;
constexpr std::size_t kBytesOfNetwork = 8;  // that one subscriber has at least

/// Returns the 16 bytes of an address, an IPv4 address mapped into IPv6; nullopt if `text` is no address.
std::optional<std::string> bytesOf(const std::string& text) {
  std::string bytes(kBytes, '\0');
  if (inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1) return bytes;
  bytes = std::string(10, '\0') + "\xff\xff" + std::string(4, '\0');
  if (inet_pton(AF_INET, text.c_str(), bytes.data() + kBitsBeforeIPv4 / 8) == 1) return bytes;
  return std::nullopt;
}

bool isMappedIPv4(const std::string& bytes) {
  return bytes.compare(0, kBitsBeforeIPv4 / 8, std::string(10, '\0') + "\xff\xff") == 0;
}

bool agree(const std::string& a, const std::string& b, unsigned bits) {
  const unsigned whole = bits / 8;
  if (a.compare(0, whole, b, 0, whole) != 0) return false;
  const unsigned rest = bits % 8;
  return rest == 0 ||
         ((static_cast<unsigned char>(a[whole]) ^ static_cast<unsigned char>(b[whole])) >> (8 - rest)) == 0;
}

}  // namespace

Networks::Networks(const std::vector<std::string>& networks) {
  for (const std::string& network : networks) {
    const auto slash = network.find('/');
    const std::string address = network.substr(0, slash);
    const auto bytes = bytesOf(address);
    const bool isIPv4 = address.find(':') == std::string::npos;
    unsigned bits = isIPv4 ? kBits - kBitsBeforeIPv4 : kBits;
    const unsigned most = bits;
    if (slash != std::string::npos) {
      const char* end = network.data() + network.size();
      const auto read = std::from_chars(network.data() + slash + 1, end, bits);
      if (read.ec != std::errc() || read.ptr != end) bits = kBits + 1;
    }
    if (!bytes || bits > most) throw std::runtime_error(network + " is no address and no network");
    networks_.push_back({*bytes, isIPv4 ? bits + kBitsBeforeIPv4 : bits});
  }
}

bool Networks::contain(const std::string& address) const {
  const auto bytes = bytesOf(address);
  return bytes && std::any_of(networks_.begin(), networks_.end(),
                              [&](const Network& network) { return agree(*bytes, network.bytes, network.bits); });
}

std::string clientAddress(const std::string& peer, const std::string& forwarded, const Networks& proxies) {
  std::string client = peer;
  std::size_t end = forwarded.size();
  while (proxies.contain(client) && end > 0) {
    const auto comma = forwarded.rfind(',', end - 1);
    const std::size_t begin = comma == std::string::npos ? 0 : comma + 1;
    std::string next = forwarded.substr(begin, end - begin);
    next.erase(0, next.find_first_not_of(" \t"));
    next.erase(next.find_last_not_of(" \t") + 1);
    if (!bytesOf(next)) break;
    client = std::move(next);
    end = comma == std::string::npos ? 0 : comma;
  }
  return client;
}

std::string limitKey(const std::string& address) {
  const auto bytes = bytesOf(address);
  if (!bytes) return address;
  return isMappedIPv4(*bytes) ? *bytes : bytes->substr(0, kBytesOfNetwork);
}

}  // namespace kelvo::server
