#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kelvo::server {

/// An address and a port to listen on.
struct Endpoint {
  std::string address;
  unsigned short port = 0;  ///< 0 for a free one
};

/// The settings of the server. A flag wins over the environment, and the environment over the default.
struct Settings {
  std::string database;  ///< connection string or URI of libpq
  Endpoint listen{"127.0.0.1", 8288};
  Endpoint admin{"127.0.0.1", 8289};
  std::string certificate;  ///< file, PEM; empty for cleartext
  std::string key;          ///< file, PEM
  std::vector<std::string> proxies;
  std::size_t databaseConnections = 4;
  std::size_t connections = 20000;
  std::size_t connectionsPerAddress = 512;
  std::size_t requestsPerApp = 0;  ///< a second, 0 for no limit
  std::size_t bodyMegabytes = 64;
  std::size_t flightMegabytes = 256;
  int retryAfter = 20;  ///< seconds
  int keepDays = 0;     ///< 0 keeps everything
  bool isStrict = false;
};

/// Reads the flags in `arguments`, then for each flag that is missing KELVO_SERVER_<FLAG> of the environment. Returns
/// the settings, or a text that says what cannot be used.
[[nodiscard]] std::pair<std::optional<Settings>, std::string> readSettings(const std::vector<std::string>& arguments);

/// The text of --help.
extern const char* const kHelp;

}  // namespace kelvo::server
