#pragma once

#include <cstdint>
#include <string>

#include "kelvo-collector/debug/Listings.h"
#include "kelvo-collector/service/Service.h"

namespace kelvo::collector {

class ScriptBook;

/// What a request below /debug can look at and change.
struct Bench {
  ServiceState& state;
  Store& store;
  ScriptBook& scripts;
};

/// The answer to a request below /debug, which shows what arrived and steers the service. Asking leaves no trace.
struct DebugReply {
  enum class News : std::uint8_t { None, Service, Reset };  ///< what changed thereby, for the open pages
  enum class Live : std::uint8_t { None, Stream, Wait };    ///< the answer takes time and a connection

  Reply reply;
  News news = News::None;
  Live live = Live::None;
};

/// True for the paths that are answered here.
[[nodiscard]] bool isDebugPath(const std::string& path);

[[nodiscard]] DebugReply debugReply(const Question& question, const Bench& bench);

/// What the query of a listing asks for.
[[nodiscard]] Filter filterOf(const Question& question);

/// The answer to a path that is none, with the list of those that are.
[[nodiscard]] Reply unknownPath();

}  // namespace kelvo::collector
