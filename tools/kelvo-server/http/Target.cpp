#include "kelvo-server/http/Target.h"

#include <charconv>
#include <string>

namespace kelvo::server {
namespace {

/// Returns `text` decoded, nullopt if it is malformed. In a query, a plus sign is a space.
std::optional<std::string> decoded(std::string_view text, bool isQuery) {
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      bytes += isQuery && text[i] == '+' ? ' ' : text[i];
      continue;
    }
    unsigned byte = 0;
    if (i + 3 > text.size()) return std::nullopt;
    const auto [end, error] = std::from_chars(text.data() + i + 1, text.data() + i + 3, byte, 16);
    if (error != std::errc() || end != text.data() + i + 3 || byte == 0) return std::nullopt;
    bytes += static_cast<char>(byte);
    i += 2;
  }
  return bytes;
}

}  // namespace

bool readTarget(std::string_view target, service::Request& request) {
  const auto mark = target.find('?');
  auto path = decoded(target.substr(0, mark), false);
  if (!path || path->empty() || path->front() != '/') return false;
  request.path = std::move(*path);
  std::string_view query = mark == std::string_view::npos ? std::string_view() : target.substr(mark + 1);
  while (!query.empty()) {
    const std::string_view pair = query.substr(0, query.find('&'));
    query.remove_prefix(std::min(query.size(), pair.size() + 1));
    const auto equals = pair.find('=');
    auto name = decoded(pair.substr(0, equals), true);
    auto value = decoded(equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1), true);
    if (!name || !value) return false;
    request.parameters.emplace(std::move(*name), std::move(*value));
  }
  return true;
}

}  // namespace kelvo::server
