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

/// What a client asks, decoded.
struct Question {
  std::string method;
  std::string path;
  std::multimap<std::string, std::string> parameters;  ///< of the query
  std::string body;
};

struct Reply {
  int status = 200;
  Dictionary body;
  std::string allow;  ///< the methods of the path, when the one that was used is none of them
  Accepted accepted;  ///< what the store is to keep
};

/// What a question is answered from.
struct Context {
  const Question& question;
  const ServiceState& state;
  const Store& store;
  std::string application;  ///< what stands for <app-id> in the path

  /// A parameter of the query; the empty text when there is none.
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
