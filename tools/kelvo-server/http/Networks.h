#pragma once

#include <string>
#include <vector>

namespace kelvo::server {

/// A set of addresses and networks, for the proxies that are trusted.
class Networks {
 public:
  /// Takes addresses, or networks as "10.0.0.0/8". Throws std::runtime_error if one is neither.
  explicit Networks(const std::vector<std::string>& networks);
  [[nodiscard]] bool contain(const std::string& address) const;

 private:
  struct Network {
    std::string bytes;  // 16, as IPv6
    unsigned bits;
  };
  std::vector<Network> networks_;
};

/// Returns the client that a chain of proxies names: the last address of `forwarded`, the header X-Forwarded-For, that
/// is not in `proxies`. Returns `peer` if there is none, or if `peer` itself is no proxy.
[[nodiscard]] std::string clientAddress(const std::string& peer, const std::string& forwarded, const Networks& proxies);

/// Returns the key under which limits count `address`: an IPv4 address, or the first 64 bits of an IPv6 address.
[[nodiscard]] std::string limitKey(const std::string& address);

}  // namespace kelvo::server
