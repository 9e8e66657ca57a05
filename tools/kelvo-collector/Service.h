#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kelvo-collector/Script.h"
#include "kelvo/Value.h"

namespace kelvo::collector {

class ServiceState;
class Store;

/// What a client asks, decoded.
struct Question {
  std::string method;
  std::string path;
  std::multimap<std::string, std::string> parameters;  ///< of the query
  std::string body;
};

/// How requests whose path and query contain `fragment` are answered from now on; normally without scripts.
struct ScriptChange {
  std::string fragment;
  std::vector<Script> scripts;
};

struct Reply {
  int status = 200;
  Dictionary body;
  std::string allow;                   ///< the methods of the path, when the one that was used is none of them
  std::optional<std::string> chunkOf;  ///< the application whose chunk is accepted hereby
  std::optional<ScriptChange> change;
};

/// True for the paths that show what arrived. Asking them leaves no trace.
[[nodiscard]] bool isDebugPath(const std::string& path);

/// The service's answer, whatever is asked. Nothing is stored here.
[[nodiscard]] Reply reply(const Question& question, const ServiceState& state, const Store& store);

}  // namespace kelvo::collector
