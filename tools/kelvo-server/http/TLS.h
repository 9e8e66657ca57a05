#pragma once

#include <memory>
#include <string>

struct ssl_ctx_st;

namespace kelvo::server {

/// Returns a server's context for TLS 1.2 and up with this certificate chain and key, both PEM files. Throws
/// std::runtime_error with the reason if they cannot be used.
[[nodiscard]] std::shared_ptr<ssl_ctx_st> makeTLS(const std::string& certificate, const std::string& key);

}  // namespace kelvo::server
