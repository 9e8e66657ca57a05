#include "kelvo-collector/debug/Users.h"

#include <cstdint>
#include <utility>

#include "kelvo-collector/debug/Listings.h"
#include "kelvo-collector/store/Database.h"

namespace kelvo::collector {

Dictionary listUsers(Database& database, std::size_t limit) {
  Database::Query rows(
      database, "SELECT id, application, attributes, received FROM users ORDER BY received DESC, key DESC LIMIT ?",
      limit);
  Array list;
  while (rows.next()) {
    Dictionary user{{"id", rows.text()}, {"application", rows.text()}, {"attributes", stored(rows.text())}};
    user.set("received", rows.number());
    list.append(std::move(user));
  }
  return {{"users", std::move(list)}};
}

std::optional<Dictionary> userHistory(Database& database, const std::string& id, std::size_t limit) {
  std::int64_t user = 0;
  {
    Database::Query row(database, "SELECT key FROM users WHERE id = ? ORDER BY received DESC LIMIT 1", id);
    if (row.next()) user = row.number();
  }
  if (user == 0) return std::nullopt;
  Database::Query rows(database,
                       "SELECT received, attributes, changed FROM user_history WHERE user = ? ORDER BY id DESC LIMIT ?",
                       user, limit);
  Array history;
  while (rows.next()) {
    Dictionary state{{"received", rows.number()}, {"attributes", stored(rows.text())}};
    state.set("changed", stored(rows.text()));
    history.append(std::move(state));
  }
  return Dictionary{{"history", std::move(history)}};
}

Dictionary listErasures(Database& database, std::size_t limit) {
  Database::Query rows(
      database,
      "SELECT id, time, application, sessions, chunks, events, requests FROM erasures ORDER BY id DESC LIMIT ?", limit);
  Array list;
  while (rows.next()) {
    Dictionary erasure{{"id", rows.number()}, {"time", rows.number()}, {"application", rows.text()}};
    for (const char* name : {"sessions", "chunks", "events", "requests"}) erasure.set(name, rows.number());
    list.append(std::move(erasure));
  }
  return {{"erasures", std::move(list)}};
}

}  // namespace kelvo::collector
