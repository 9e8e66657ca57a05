#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <utility>

#include "kelvo/Value.h"

namespace kelvo::collector {

class Database;
class Quality;

/// Counts the events, points and attribute values of one chunk in memory, so that `write` touches each row only once.
class ChunkCounts {
 public:
  /// `session` is the key of the session's row.
  ChunkCounts(Database& database, std::int64_t session) : database_(database), session_(session) {}

  /// Adds `count` events called `name`. `event` is the row of one of them; a problem report refers to it.
  void addName(const std::string& kind, const std::string& name, std::int64_t count, std::int64_t event);
  /// Adds one event to the timeline. `second` counts from the session's launch.
  void addPoint(std::int64_t second, const std::string& kind, const std::string& name);
  void addValue(const std::string& kind, const std::string& name, const std::string& attribute, const Value& value,
                std::int64_t count, std::int64_t event);
  /// Returns the stored count of `value` in this session, without the values added here.
  [[nodiscard]] std::int64_t storedCount(const std::string& kind, const std::string& name, const std::string& attribute,
                                         const Value& value);

  /// Adds the counts to the tables, and reports new names, type changes and attributes with too many values.
  void write(Quality& quality);

 private:
  struct NameCount {
    std::int64_t count = 0;
    std::int64_t event = 0;
  };
  struct TypeCount {
    std::int64_t count = 0;
    std::int64_t event = 0;  // the first one with a value of this type
    std::string value;       // of that event, as JSON text
  };
  struct Attribute {
    std::map<unsigned, TypeCount> types;         // by type bit
    std::map<std::string, std::int64_t> values;  // value as JSON text to its count
    std::int64_t lastEvent = 0;
  };
  struct AttributeRow {
    std::int64_t key = 0;
    unsigned types = 0;               // bits of the types seen so far
    std::int64_t distinct = 0;        // number of distinct values
    std::int64_t distinctBefore = 0;  // and before this chunk
  };
  using Name = std::pair<std::string, std::string>;                         // kind, name
  using Point = std::tuple<std::int64_t, std::string, std::string>;         // second, kind, name
  using AttributeName = std::tuple<std::string, std::string, std::string>;  // kind, name, attribute

  void writeNames(Quality& quality);
  void writePoints();
  /// Returns the row as it is afterwards.
  AttributeRow writeAttribute(std::int64_t session, const AttributeName& of, const Attribute& attribute);
  AttributeRow findOrInsertAttribute(std::int64_t session, const AttributeName& of);
  /// Returns the number of distinct values afterwards.
  std::int64_t writeValues(const AttributeRow& row, const Attribute& attribute);
  void writeTypes(const AttributeRow& row, const Attribute& attribute);

  Database& database_;
  std::int64_t session_;
  std::map<Name, NameCount> names_;
  std::map<Point, std::int64_t> points_;
  std::map<AttributeName, Attribute> attributes_;
};

}  // namespace kelvo::collector
