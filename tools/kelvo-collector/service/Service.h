#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo-collector/service/Script.h"
#include "kelvo-collector/store/Store.h"
#include "kelvo/Value.h"

namespace kelvo::collector {

class ServiceState;

/// A client's request, decoded.
struct Question {
  std::string method;
  std::string path;
  std::multimap<std::string, std::string> parameters;  ///< parameters of the URL's query
  std::string body;
};

struct Reply {
  int status = 200;
  Dictionary body;
  std::string allow;  ///< on status 405: the method that the path allows
  Accepted accepted;  ///< the parts of the request that the store must keep
};

/// The input of an answer: the request and the service's data.
struct Context {
  const Question& question;
  const ServiceState& state;
  const Store& store;
  std::string application;  ///< the application's id in the path

  /// Returns a parameter of the query, empty if there is none.
  [[nodiscard]] std::string parameter(const char* name) const;
};

/// Returns the service's answer, nullopt if the service has no such path. Stores nothing; the caller stores
/// `Reply::accepted`. Thread-safe.
[[nodiscard]] std::optional<Reply> reply(const Question& question, const ServiceState& state, const Store& store);

[[nodiscard]] Reply refusal(int status, std::string reason);
[[nodiscard]] Reply success(Dictionary body);

/// Returns "METHOD /path" for each path of the service. The answer to an unknown path lists them.
[[nodiscard]] std::vector<std::string> servicePaths();

}  // namespace kelvo::collector
