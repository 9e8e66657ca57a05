#pragma once

#include <cstdint>
#include <string>

#include "kelvo/Value.h"

namespace kelvo::collector {

class Database;
class Expectations;

/// The body of an accepted request, and the row of that request.
struct ArrivedBody {
  const std::string& body;
  std::int64_t sequence;  ///< key of the request's row
  std::int64_t time;      ///< milliseconds since 1970
};

/// Splits an accepted chunk into rows of sessions, events, aggregates and users, counts them and checks their quality.
/// A repeated chunk does not store or count its events again. Must run in the transaction that stores the request.
void keepChunk(Database& database, const ArrivedBody& arrived, const std::string& application,
               const Expectations& expectations);

/// Stores the attributes of a user-info upload. Must run in the transaction that stores the request.
void keepUser(Database& database, const ArrivedBody& arrived, const std::string& application);

}  // namespace kelvo::collector
