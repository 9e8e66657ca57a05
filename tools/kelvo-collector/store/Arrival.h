#pragma once

#include <cstdint>
#include <string>

#include "kelvo/Value.h"

namespace kelvo::collector {

class Database;

/// A request that brought something, and the row that it has.
struct ArrivedBody {
  const std::string& body;
  std::int64_t sequence;
  std::int64_t time;  ///< milliseconds since 1970
};

/// Splits an accepted chunk into rows of sessions, events, aggregates and users, and counts and checks them. Events of
/// a chunk that came before are not counted again. Belongs into the transaction that keeps the request.
void keepChunk(Database& database, const ArrivedBody& arrived, const std::string& application);

/// The same for a user-info upload.
void keepUser(Database& database, const ArrivedBody& arrived, const std::string& application);

}  // namespace kelvo::collector
