#include "kelvo-server/Settings.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string_view>

#include "kelvo-service/Parameters.h"

namespace kelvo::server {
namespace {

/// A flag with a value. `read` returns false if it cannot use the text.
struct Flag {
  const char* name;
  bool (*read)(Settings&, const std::string&);
};

using service::readNumber;

/// Reads "ADDRESS:PORT"; an IPv6 address may have brackets.
bool readEndpoint(const std::string& text, Endpoint& endpoint) {
  const auto colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  endpoint.address = text.substr(0, colon);
  if (endpoint.address.front() == '[' && endpoint.address.back() == ']') {
    endpoint.address = endpoint.address.substr(1, endpoint.address.size() - 2);
  }
  return readNumber(std::string_view(text).substr(colon + 1), 0, UINT16_MAX, endpoint.port);
}

bool readList(const std::string& text, std::vector<std::string>& list) {
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    if (end > begin) list.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return true;
}

using Text = const std::string&;
constexpr Flag kFlags[] = {
    {"database", [](Settings& s, Text t) { return !(s.database = t).empty(); }},
    {"listen", [](Settings& s, Text t) { return readEndpoint(t, s.listen); }},
    {"admin", [](Settings& s, Text t) { return readEndpoint(t, s.admin); }},
    {"tls-cert", [](Settings& s, Text t) { return !(s.certificate = t).empty(); }},
    {"tls-key", [](Settings& s, Text t) { return !(s.key = t).empty(); }},
    {"trusted-proxy", [](Settings& s, Text t) { return readList(t, s.proxies); }},
    {"database-connections", [](Settings& s, Text t) { return readNumber(t, 1, 1000, s.databaseConnections); }},
    {"connections", [](Settings& s, Text t) { return readNumber(t, 1, 1000000, s.connections); }},
    {"per-address", [](Settings& s, Text t) { return readNumber(t, 1, 1000000, s.connectionsPerAddress); }},
    {"per-app", [](Settings& s, Text t) { return readNumber(t, 0, 1000000, s.requestsPerApp); }},
    {"body", [](Settings& s, Text t) { return readNumber(t, 1, 512, s.bodyMegabytes); }},
    {"in-flight", [](Settings& s, Text t) { return readNumber(t, 1, 65536, s.flightMegabytes); }},
    {"retry-after", [](Settings& s, Text t) { return readNumber(t, 1, 1200, s.retryAfter); }},
    {"keep-days", [](Settings& s, Text t) { return readNumber(t, 0, 36500, s.keepDays); }},
    {"strict", [](Settings& s, Text t) { return (s.isStrict = t == "1") || t == "0"; }},
};

std::string variableOf(const std::string& flag) {
  std::string name = "KELVO_SERVER_" + flag;
  std::transform(name.begin(), name.end(), name.begin(), [](char c) {
    return c == '-' ? '_' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  });
  return name;
}

}  // namespace

const char* const kHelp =
    R"(usage: kelvo-server [serve] [--FLAG VALUE]...
       kelvo-server migrate [--database DB]
       kelvo-server put config|client-events|actions|enabled APP FILE

`serve` answers applications with Kelvo until SIGTERM. `migrate` brings the
tables up to date. `put` stores a document of the service, JSON, from FILE or -.

  --database DB              connection string or URI of libpq (required)
  --listen ADDR:PORT         for applications (127.0.0.1:8288)
  --admin ADDR:PORT          /healthz, /readyz, /metrics (127.0.0.1:8289)
  --tls-cert F, --tls-key F  HTTPS with these PEM files; SIGHUP rereads them
  --trusted-proxy ADDR,...   addresses or networks whose X-Forwarded-For counts
  --database-connections N   connections to the database (4)
  --connections N            open connections (20000)
  --per-address N            those of an address, or of a proxy's client (512)
  --per-app N                requests a second of one application (no limit)
  --body MB, --in-flight MB  largest body (64); bodies of all requests (256)
  --retry-after S            a refused device waits 1 to 3 times as long (20)
  --keep-days N              delete what arrived earlier (keep everything)
  --strict                   answer 400 to a body that is no chunk (development)

Each flag can be set in the environment: KELVO_SERVER_TLS_CERT ...
Exit status: 0 on success, 1 when it cannot serve, 2 for wrong usage.
)";

std::pair<std::optional<Settings>, std::string> readSettings(const std::vector<std::string>& arguments) {
  Settings settings;
  std::vector<std::string> seen;
  const auto use = [&](const std::string& name, const std::string& value) {
    const auto flag = std::find_if(std::begin(kFlags), std::end(kFlags), [&](const Flag& f) { return name == f.name; });
    return flag != std::end(kFlags) && flag->read(settings, value);
  };
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string name = arguments[i].substr(0, 2) == "--" ? arguments[i].substr(2) : "";
    const bool hasValue = name != "strict";
    if (hasValue && i + 1 == arguments.size()) return {std::nullopt, arguments[i]};
    const std::string value = hasValue ? arguments[++i] : "1";
    if (!use(name, value)) return {std::nullopt, arguments[i - (hasValue ? 1 : 0)] + (hasValue ? " " + value : "")};
    seen.push_back(name);
  }
  for (const Flag& flag : kFlags) {
    if (std::find(seen.begin(), seen.end(), flag.name) != seen.end()) continue;
    const std::string variable = variableOf(flag.name);
    const char* value = std::getenv(variable.c_str());
    if (value != nullptr && *value != '\0' && !use(flag.name, value)) return {std::nullopt, variable + "=" + value};
  }
  if (settings.database.empty()) return {std::nullopt, "no --database"};
  if (settings.certificate.empty() != settings.key.empty()) return {std::nullopt, "--tls-cert without --tls-key"};
  return {settings, {}};
}

}  // namespace kelvo::server
