#include "kelvo-server/http/TLS.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <stdexcept>

namespace kelvo::server {
namespace {

[[noreturn]] void fail(const std::string& file) {
  const char* reason = ERR_reason_error_string(ERR_peek_last_error());
  ERR_clear_error();
  throw std::runtime_error(file + ": " + (reason == nullptr ? "cannot be used" : reason));
}

}  // namespace

std::shared_ptr<ssl_ctx_st> makeTLS(const std::string& certificate, const std::string& key) {
  const std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  // An idle connection keeps no buffers.
  SSL_CTX_set_mode(context.get(), SSL_MODE_RELEASE_BUFFERS);
  SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_CIPHER_SERVER_PREFERENCE);
  // Clients resume sessions by tickets, so the server remembers none.
  SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
  if (SSL_CTX_use_certificate_chain_file(context.get(), certificate.c_str()) != 1) fail(certificate);
  if (SSL_CTX_use_PrivateKey_file(context.get(), key.c_str(), SSL_FILETYPE_PEM) != 1) fail(key);
  if (SSL_CTX_check_private_key(context.get()) != 1) fail(key);
  return context;
}

}  // namespace kelvo::server
