#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kelvo {

/// `text` with every byte percent-encoded that may not stand in the query of a URL. "%" is no exception, so text that
/// was encoded before is encoded again; the brackets around the address of an IPv6 host stay.
std::string percentEncoded(std::string_view text);

/// What decides how a URL may be requested, as the transport itself reads it.
struct HTTPURL {
  std::string scheme;
  std::string host;  ///< an IPv6 address stands in brackets

  /// nullopt for text that is no absolute URL with a host.
  static std::optional<HTTPURL> parse(const std::string& text);

  /// Exactly "localhost", an address in 127.0.0.0/8, or ::1. A name that merely ends in ".localhost" may resolve to
  /// anywhere.
  [[nodiscard]] bool isLoopback() const;
  /// Unencrypted, and bound for another machine.
  [[nodiscard]] bool exposesCleartext() const;
};

}  // namespace kelvo
