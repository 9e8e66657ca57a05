#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kelvo {

/// Returns `text` with every byte percent-encoded that a URL's query must not contain, "%" included: encoded text is
/// encoded again. "+" is encoded, too, because services read it as a space. The brackets around the host's IPv6 address
/// stay as they are.
std::string percentEncoded(std::string_view text);

/// Returns a URL, well-formed or not, for a log line or a report: "..." replaces the user name and the password.
std::string withoutCredentials(std::string url);

/// The parts of a URL that decide whether it may be requested. curl parses the URL, so curl's requests agree.
struct HTTPURL {
  std::string scheme;
  std::string host;  ///< an IPv6 address is in brackets

  /// Returns nullopt unless `text` is an absolute URL with a host. Needs libcurl (`Curl::load`).
  static std::optional<HTTPURL> parse(const std::string& text);

  /// Returns true for "localhost", for an address in 127.0.0.0/8, and for ::1. Other names that end in ".localhost"
  /// return false, because they may resolve to any machine.
  [[nodiscard]] bool isLoopback() const;
  /// Returns true if a request would send cleartext to another machine.
  [[nodiscard]] bool exposesCleartext() const;
};

}  // namespace kelvo
