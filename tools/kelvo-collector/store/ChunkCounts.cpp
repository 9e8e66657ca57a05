#include "kelvo-collector/store/ChunkCounts.h"

#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/Quality.h"
#include "kelvo-collector/store/Schema.h"
#include "kelvo-collector/store/Types.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

/// An attribute with more distinct values than this is reported.
constexpr std::int64_t kManyValues = 100;
/// An attribute with this many distinct values gets no rows for further values.
constexpr std::int64_t kMostValues = 1000;
constexpr std::size_t kLongestText = 200;  // bytes

/// Returns true for the second and later bytes of a UTF-8 character.
bool continuesCharacter(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

/// Cuts a long text at the start of a character and appends an ellipsis.
std::string shortened(const std::string& text) {
  if (text.size() <= kLongestText) return text;
  std::size_t end = kLongestText;
  while (end > 0 && continuesCharacter(text[end])) --end;
  return text.substr(0, end) + "\u2026";
}

/// Returns the JSON text under which `value` is counted. Long values that begin alike share one.
std::string keyOf(const Value& value) {
  if (const auto* text = value.get<std::string>()) return jsonText(shortened(*text)).value_or("null");
  const std::string json = jsonText(value).value_or("null");
  return json.size() <= kLongestText ? json : jsonText(shortened(json)).value_or("null");
}

}  // namespace

void ChunkCounts::addName(const std::string& kind, const std::string& name, std::int64_t count, std::int64_t event) {
  names_.try_emplace({kind, name}, NameCount{0, event}).first->second.count += count;
}

void ChunkCounts::addPoint(std::int64_t second, const std::string& kind, const std::string& name) {
  ++points_[{second, kind, name}];
}

void ChunkCounts::addValue(const std::string& kind, const std::string& name, const std::string& attribute,
                           const Value& value, std::int64_t count, std::int64_t event) {
  Attribute& of = attributes_[{kind, name, attribute}];
  if (const TypeBit type = typeOf(value); type != kNoType) {
    of.types.try_emplace(type, TypeCount{0, event, keyOf(value)}).first->second.count += count;
  }
  of.values[keyOf(value)] += count;
  of.lastEvent = event;
}

std::int64_t ChunkCounts::storedCount(const std::string& kind, const std::string& name, const std::string& attribute,
                                      const Value& value) {
  Database::Query row(database_,
                      "SELECT count FROM attributes JOIN attribute_values AS v ON v.attribute = key"
                      " WHERE session = ? AND name = ? AND kind = ? AND attributes.attribute = ? AND value = ?",
                      session_, name, kind, attribute, keyOf(value));
  return row.next() ? row.number() : 0;
}

void ChunkCounts::writeNames(Quality& quality) {
  std::map<std::string, std::int64_t> kinds;
  for (const auto& [of, counted] : names_) {
    const auto& [kind, name] = of;
    kinds[kind] += counted.count;
    for (const std::int64_t session : {kAllSessions, session_}) {
      Database::Query(database_, "UPDATE names SET count = count + ? WHERE session = ? AND kind = ? AND name = ?",
                      counted.count, session, kind, name)
          .execute();
      if (database_.changed()) continue;
      Database::Query(database_, "INSERT INTO names VALUES (?, ?, ?, ?)", session, kind, name, counted.count).execute();
      if (session == kAllSessions) quality.checkNewName(kind, name, counted.event);
    }
  }
  for (const auto& [kind, count] : kinds) {
    addToCounter(database_, kAllSessions, "kind", kind, count);
    addToCounter(database_, session_, "kind", kind, count);
  }
}

void ChunkCounts::writePoints() {
  for (const auto& [point, count] : points_) {
    const auto& [second, kind, name] = point;
    Database::Query(database_,
                    "INSERT INTO points VALUES (?, ?, ?, ?, ?)"
                    " ON CONFLICT (session, second, kind, name) DO UPDATE SET count = count + excluded.count",
                    session_, second, kind, name, count)
        .execute();
  }
}

ChunkCounts::AttributeRow ChunkCounts::findOrInsertAttribute(std::int64_t session, const AttributeName& of) {
  const auto& [kind, name, attribute] = of;
  AttributeRow row;
  Database::Query known(database_,
                        "SELECT key, types, distinct_values FROM attributes"
                        " WHERE session = ? AND name = ? AND kind = ? AND attribute = ?",
                        session, name, kind, attribute);
  if (known.next()) {
    row.key = known.number();
    row.types = static_cast<unsigned>(known.number());
    row.distinct = row.distinctBefore = known.number();
    return row;
  }
  Database::Query(database_, "INSERT INTO attributes VALUES (NULL, ?, ?, ?, ?, 0, 0)", session, kind, name, attribute)
      .execute();
  row.key = database_.lastRow();
  return row;
}

std::int64_t ChunkCounts::writeValues(const AttributeRow& row, const Attribute& attribute) {
  std::int64_t distinct = row.distinct;
  for (const auto& [value, count] : attribute.values) {
    Database::Query(database_, "UPDATE attribute_values SET count = count + ? WHERE attribute = ? AND value = ?", count,
                    row.key, value)
        .execute();
    if (database_.changed() || distinct >= kMostValues) continue;
    Database::Query(database_, "INSERT INTO attribute_values VALUES (?, ?, ?)", row.key, value, count).execute();
    ++distinct;
  }
  return distinct;
}

void ChunkCounts::writeTypes(const AttributeRow& row, const Attribute& attribute) {
  for (const auto& [type, seen] : attribute.types) {
    Database::Query(database_,
                    "INSERT INTO attribute_types VALUES (?, ?, ?, ?, ?)"
                    " ON CONFLICT (attribute, type) DO UPDATE SET count = count + excluded.count",
                    row.key, static_cast<std::int64_t>(type), seen.count, seen.event, seen.value)
        .execute();
  }
}

ChunkCounts::AttributeRow ChunkCounts::writeAttribute(std::int64_t session, const AttributeName& of,
                                                      const Attribute& attribute) {
  AttributeRow row = findOrInsertAttribute(session, of);
  const unsigned typesBefore = row.types;
  for (const auto& type : attribute.types) row.types |= type.first;
  row.distinct = writeValues(row, attribute);
  writeTypes(row, attribute);
  if (row.distinct == row.distinctBefore && row.types == typesBefore) return row;
  Database::Query(database_, "UPDATE attributes SET types = ?, distinct_values = ? WHERE key = ?",
                  static_cast<std::int64_t>(row.types), row.distinct, row.key)
      .execute();
  return row;
}

void ChunkCounts::write(Quality& quality) {
  writeNames(quality);
  writePoints();
  for (const auto& [of, attribute] : attributes_) {
    const AttributeRow all = writeAttribute(kAllSessions, of, attribute);
    writeAttribute(session_, of, attribute);
    const auto& [kind, name, attributeName] = of;
    if (isOfLibrary(attributeName)) continue;
    if (hasSeveralTypes(all.types)) quality.checkTypes({kind, name, attributeName});
    if (all.distinctBefore <= kManyValues && all.distinct > kManyValues) {
      quality.reportTooManyValues(name, attributeName, kManyValues + 1, attribute.lastEvent);
    }
  }
}

}  // namespace kelvo::collector
