#pragma once

#include <string_view>

namespace kelvo::collector {

/// True for "localhost", "[::1]" and the addresses 127.x.x.x, with any port. A page elsewhere whose name leads to this
/// machine says that name.
[[nodiscard]] bool isLoopbackHost(std::string_view host);

/// Whether a request with this "Origin" comes from the collector's own page, or from no page at all.
[[nodiscard]] bool isOwnOrigin(std::string_view origin, std::string_view host, bool tls);

/// Nothing that a page shows can run, load or send anything that is not the collector's own.
inline constexpr const char* kContentSecurityPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self' data:; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

}  // namespace kelvo::collector
