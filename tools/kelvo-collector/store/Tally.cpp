#include "kelvo-collector/store/Tally.h"

#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/Quality.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

constexpr std::int64_t kManyValues = 100;
/// Beyond it, values that did not come before are no more listed.
constexpr std::int64_t kMostValues = 1000;
constexpr std::size_t kLongestText = 200;

/// The kinds of value that an analyst tells apart; 0 for null, which fits to all.
unsigned typeOf(const Value& value) {
  if (value.get<std::string>() != nullptr) return 1;
  if (value.get<bool>() != nullptr) return 4;
  if (value.isNumber()) return 2;
  if (value.get<Array>() != nullptr) return 8;
  return value.get<Dictionary>() != nullptr ? 16 : 0;
}

std::string nameOfType(unsigned types) {
  if ((types & 1U) != 0) return "text";
  if ((types & 2U) != 0) return "number";
  if ((types & 4U) != 0) return "boolean";
  return (types & 8U) != 0 ? "list" : "dictionary";
}

/// Cut, when it is long, where a character begins.
std::string shortened(const std::string& text) {
  if (text.size() <= kLongestText) return text;
  std::size_t end = kLongestText;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) --end;
  return text.substr(0, end) + "\u2026";
}

std::string keyOf(const Value& value) {
  if (const auto* text = value.get<std::string>()) return jsonText(shortened(*text)).value_or("null");
  const std::string json = jsonText(value).value_or("null");
  return json.size() <= kLongestText ? json : jsonText(shortened(json)).value_or("null");
}

}  // namespace

void Tally::addName(const std::string& kind, const std::string& name, std::int64_t count, std::int64_t event) {
  Count& of = names_.try_emplace({kind, name}, Count{0, event}).first->second;
  of.count += count;
}

void Tally::addPoint(std::int64_t second, const std::string& kind, const std::string& name) {
  ++points_[{second, kind, name}];
}

void Tally::addValue(const std::string& kind, const std::string& name, const std::string& attribute, const Value& value,
                     std::int64_t count, std::int64_t event) {
  Attribute& of = attributes_[{kind, name, attribute}];
  if (const unsigned type = typeOf(value); type != 0) of.types.try_emplace(type, event, value);
  of.values[keyOf(value)] += count;
}

std::int64_t Tally::countedSoFar(const std::string& kind, const std::string& name, const std::string& attribute,
                                 const Value& value) {
  Database::Query row(database_,
                      "SELECT count FROM attributes JOIN attribute_values AS v ON v.attribute = key"
                      " WHERE session = ? AND name = ? AND kind = ? AND attributes.attribute = ? AND value = ?",
                      session_, name, kind, attribute, keyOf(value));
  return row.next() ? row.number() : 0;
}

void Tally::writeNames(Quality& quality) {
  std::map<std::string, std::int64_t> kinds;
  for (const auto& [of, counted] : names_) {
    const auto& [kind, name] = of;
    kinds[kind] += counted.count;
    for (const std::int64_t session : {std::int64_t(0), session_}) {
      Database::Query(database_, "UPDATE names SET count = count + ? WHERE session = ? AND kind = ? AND name = ?",
                      counted.count, session, kind, name)
          .execute();
      if (database_.changed()) continue;
      Database::Query(database_, "INSERT INTO names VALUES (?, ?, ?, ?)", session, kind, name, counted.count).execute();
      if (session == 0) quality.checkNewName(kind, name, counted.event);
    }
  }
  for (const auto& [kind, count] : kinds) {
    addToCounter(database_, 0, "kind", kind, count);
    addToCounter(database_, session_, "kind", kind, count);
  }
}

void Tally::writePoints() {
  for (const auto& [point, count] : points_) {
    const auto& [second, kind, name] = point;
    Database::Query(database_,
                    "INSERT INTO points VALUES (?, ?, ?, ?, ?)"
                    " ON CONFLICT (session, second, kind, name) DO UPDATE SET count = count + excluded.count",
                    session_, second, kind, name, count)
        .execute();
  }
}

void Tally::writeAttribute(std::int64_t session, const AttributeName& of, const Attribute& attribute,
                           Quality* quality) {
  const auto& [kind, name, attributeName] = of;
  std::int64_t key = 0, distinct = 0, types = 0;
  {
    Database::Query known(database_,
                          "SELECT key, types, distinct_values FROM attributes"
                          " WHERE session = ? AND name = ? AND kind = ? AND attribute = ?",
                          session, name, kind, attributeName);
    if (known.next()) {
      key = known.number();
      types = known.number();
      distinct = known.number();
    }
  }
  if (key == 0) {
    Database::Query(database_, "INSERT INTO attributes VALUES (NULL, ?, ?, ?, ?, 0, 0)", session, kind, name,
                    attributeName)
        .execute();
    key = database_.lastRow();
  }

  auto seen = static_cast<unsigned>(types);
  for (const auto& [type, first] : attribute.types) {
    const bool isNew = seen != 0 && (seen & type) == 0;
    if (isNew && quality != nullptr) {
      quality->reportTypeChange(name, attributeName, nameOfType(seen), nameOfType(type), first.second, first.first);
    }
    seen |= type;
  }

  const std::int64_t before = distinct;
  for (const auto& [value, count] : attribute.values) {
    Database::Query(database_, "UPDATE attribute_values SET count = count + ? WHERE attribute = ? AND value = ?", count,
                    key, value)
        .execute();
    if (database_.changed() || distinct >= kMostValues) continue;
    Database::Query(database_, "INSERT INTO attribute_values VALUES (?, ?, ?)", key, value, count).execute();
    ++distinct;
  }
  if (before <= kManyValues && distinct > kManyValues && quality != nullptr) {
    quality->reportTooManyValues(name, attributeName, kManyValues + 1);
  }
  if (distinct == before && seen == static_cast<unsigned>(types)) return;
  Database::Query(database_, "UPDATE attributes SET types = ?, distinct_values = ? WHERE key = ?",
                  static_cast<std::int64_t>(seen), distinct, key)
      .execute();
}

void Tally::write(Quality& quality) {
  writeNames(quality);
  writePoints();
  for (const auto& [of, attribute] : attributes_) {
    writeAttribute(0, of, attribute, &quality);
    writeAttribute(session_, of, attribute, nullptr);
  }
}

}  // namespace kelvo::collector
