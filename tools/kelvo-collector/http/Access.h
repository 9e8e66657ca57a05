#pragma once

#include <string_view>

// The checks that keep foreign web pages away from the collector.

namespace kelvo::collector {

/// Returns true if `host`, a Host header, is "localhost", "[::1]" or an address 127.x.x.x, with or without a port.
/// A web page can let its own domain resolve to this machine; its requests then carry that domain as their host.
[[nodiscard]] bool isLoopbackHost(std::string_view host);

/// Returns true if the Origin header `origin` is the address of the collector's own page, or empty: then no foreign
/// page sent the request. `host` is the Host header; `tls` is true if the collector serves HTTPS.
[[nodiscard]] bool isOwnOrigin(std::string_view origin, std::string_view host, bool tls);

/// Lets the page run scripts, load styles and send requests only from and to the collector.
inline constexpr const char* kContentSecurityPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self' data:; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

}  // namespace kelvo::collector
