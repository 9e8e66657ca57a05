#include "kelvo-collector/store/Erasure.h"

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <array>
#include <vector>

#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/Quality.h"
#include "kelvo-collector/store/Schema.h"

namespace kelvo::collector {
namespace {

constexpr const char* kKey = "erasure-key";  // name of the document
constexpr std::size_t kKeyBytes = 32;

std::string hexadecimal(const unsigned char* bytes, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) text += fmt::format("{:02x}", bytes[i]);
  return text;
}

/// Returns the store's key. Makes it at the first call.
std::string keyOf(Database& database) {
  {
    Database::Query row(database, "SELECT body FROM documents WHERE name = ?", kKey);
    if (row.next()) return row.text();
  }
  std::array<unsigned char, kKeyBytes> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) database.fail();
  std::string key = hexadecimal(bytes.data(), bytes.size());
  Database::Query(database, "INSERT INTO documents VALUES (?, ?)", kKey, key).execute();
  return key;
}

/// Returns the text whose hash marks an erased device.
std::string markOf(const Device& device) {
  return "device " + std::to_string(device.application.size()) + " " + device.application + device.id;
}

std::string hashOfSecret(Database& database, const std::string& secret) {
  return keyedHash(database, "secret " + secret);
}

/// Deletes the requests of the device, and returns their number. Also deletes requests that contain the id but are kept
/// under no device: the collector could not read them, or its earlier version stored them.
std::int64_t eraseRequests(Database& database, const Device& device, const std::string& name) {
  Database::Query(database,
                  "UPDATE requests SET target = replace(target, ?3, ?4), headers = '{}', body = x'', device = ''"
                  " WHERE application = ?1 AND device = ?2 AND method = 'DELETE'",
                  device.application, device.id, device.id, name)
      .execute();
  Database::Query(database, "DELETE FROM requests WHERE application = ? AND device = ?", device.application, device.id)
      .execute();
  std::int64_t count = database.changes();
  Database::Query(database,
                  "DELETE FROM requests WHERE sequence IN (SELECT request FROM chunks JOIN sessions ON key = session"
                  " WHERE sessions.application = ? AND device_id = ?)",
                  device.application, device.id)
      .execute();
  count += database.changes();
  Database::Query(database,
                  "DELETE FROM requests WHERE device = '' AND (instr(target, ?1) OR instr(body, CAST(?1 AS BLOB)))"
                  " AND sequence NOT IN (SELECT request FROM chunks)",
                  device.id)
      .execute();
  return count + database.changes();
}

void eraseSessionsAndUser(Database& database, const Device& device) {
  for (const char* sql :
       {"DELETE FROM chunks WHERE session IN (SELECT key FROM sessions WHERE application = ? AND device_id = ?)",
        "DELETE FROM user_history WHERE user IN (SELECT key FROM users WHERE application = ? AND id = ?)",
        "DELETE FROM users WHERE application = ? AND id = ?"}) {
    Database::Query(database, sql, device.application, device.id).execute();
  }
  database.run(kForgetEmptySessions);
}

struct MixedAttribute {
  std::string kind, name, attribute;
  Place place;  // of an event with the rarest type
};

/// Reports the attributes with values of several types again: the texts of the reports name values of other sessions.
void reportTypesAgain(Database& database) {
  removeProblems(database, kTypeChanges);
  std::vector<MixedAttribute> mixed;
  {
    Database::Query rows(database,
                         "SELECT a.kind, a.name, a.attribute, coalesce(e.session, 0), coalesce(e.chunk, 0),"
                         " coalesce(r.time, 0) FROM attributes a LEFT JOIN events e ON e.id ="
                         " (SELECT event FROM attribute_types t WHERE t.attribute = a.key ORDER BY count LIMIT 1)"
                         " LEFT JOIN requests r ON r.sequence = e.request"
                         " WHERE a.session = 0 AND a.types & (a.types - 1) <> 0");
    while (rows.next()) {
      mixed.push_back({rows.text(), rows.text(), rows.text(), {rows.number(), rows.number(), rows.number()}});
    }
  }
  for (const auto& [kind, name, attribute, place] : mixed) {
    if (!isOfLibrary(attribute)) reportTypes(database, {kind, name, attribute}, place);
  }
}

}  // namespace

std::string keyedHash(Database& database, std::string_view text) {
  const std::string key = keyOf(database);
  std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
  unsigned int size = 0;
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), bytes, text.size(), hash.data(), &size);
  return hexadecimal(hash.data(), size);
}

void keepSecret(Database& database, const Device& device, const std::string& secret) {
  Database::Query(database, "UPDATE users SET secret = ? WHERE application = ? AND id = ? AND secret = ''",
                  hashOfSecret(database, secret), device.application, device.id)
      .execute();
}

Erasure rightToErase(Database& database, const Device& device, const std::string& secret) {
  const std::string given = hashOfSecret(database, secret);
  Database::Query row(database, "SELECT secret FROM users WHERE application = ? AND id = ?", device.application,
                      device.id);
  if (!row.next()) return Erasure::unknownDevice;
  const std::string kept = row.text();
  if (kept.empty()) return Erasure::noSecret;
  const bool isEqual = kept.size() == given.size() && CRYPTO_memcmp(kept.data(), given.data(), kept.size()) == 0;
  return isEqual ? Erasure::done : Erasure::wrongSecret;
}

void eraseDevice(Database& database, const Device& device, std::int64_t time) {
  Database::Query(database, "INSERT OR IGNORE INTO erased VALUES (?)", keyedHash(database, markOf(device))).execute();
  std::int64_t sessions = 0, chunks = 0, events = 0;
  {
    Database::Query row(database,
                        "SELECT count(*), sum(chunks), sum(events) FROM sessions WHERE application = ?"
                        " AND device_id = ?",
                        device.application, device.id);
    if (row.next()) {
      sessions = row.number();
      chunks = row.number();
      events = row.number();
    }
  }
  const std::int64_t requests = eraseRequests(database, device, nameOfErased(database, device));
  eraseSessionsAndUser(database, device);
  database.run(kCountAnew);
  reportTypesAgain(database);
  addToCounter(database, kAllSessions, "total", "sessions", -sessions);
  addToCounter(database, kAllSessions, "total", "chunks", -chunks);
  addToCounter(database, kAllSessions, "total", "events", -events);
  Database::Query(database, "INSERT INTO erasures VALUES (NULL, ?, ?, ?, ?, ?, ?)", time, device.application, sessions,
                  chunks, events, requests)
      .execute();
  database.run("PRAGMA user_version = 1");
}

bool mustShrink(Database& database) {
  Database::Query row(database, "PRAGMA user_version");
  return row.next() && row.number() != 0;
}

std::string nameOfErased(Database& database, const Device& device) {
  if (device.id.empty()) return {};
  const std::string hash = keyedHash(database, markOf(device));
  constexpr std::size_t kShownDigits = 12;
  Database::Query row(database, "SELECT 1 FROM erased WHERE device = ?", hash);
  return row.next() ? "erased-" + hash.substr(0, kShownDigits) : std::string();
}

std::string withoutId(std::string text, const std::string& id, const std::string& name) {
  for (auto at = text.find(id); at != std::string::npos; at = text.find(id, at + name.size())) {
    text.replace(at, id.size(), name);
  }
  return text;
}

}  // namespace kelvo::collector
