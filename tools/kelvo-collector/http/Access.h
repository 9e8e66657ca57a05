#pragma once

#include <string_view>

// The checks that keep foreign web pages and other users of the machine away from the collector.

namespace kelvo::collector {

/// Returns true if `host`, a Host header, is "localhost", "[::1]" or an address 127.x.x.x, with or without a port.
/// A web page can let its own domain resolve to this machine; its requests then carry that domain as their host.
[[nodiscard]] bool isLoopbackHost(std::string_view host);

/// Returns true if the Origin header `origin` is the address of the collector's own page, or empty: then no foreign
/// page sent the request. `host` is the Host header; `tls` is true if the collector serves HTTPS.
[[nodiscard]] bool isOwnOrigin(std::string_view origin, std::string_view host, bool tls);

/// Returns true if a browser says, in the Sec-Fetch-Site header `site`, that a page of another origin sent the request.
/// Such a request may lack an Origin header. Programs other than browsers send neither.
[[nodiscard]] bool isForeignSite(std::string_view site);

/// Returns true if the Authorization header is "Bearer <token>", or the query's token is `token`. Takes the same time
/// for every wrong token of the same length.
[[nodiscard]] bool carriesToken(std::string_view authorization, std::string_view queryToken, std::string_view token);

/// Lets the page run scripts, load styles and send requests only from and to the collector.
inline constexpr const char* kContentSecurityPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self' data:; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

}  // namespace kelvo::collector
