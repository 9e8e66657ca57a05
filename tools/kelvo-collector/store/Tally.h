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

/// Counts what one chunk holds, so that a name or a value that stands in it many times is written once.
class Tally {
 public:
  Tally(Database& database, std::int64_t session) : database_(database), session_(session) {}

  /// `count` events of that name; `event` is the row of one.
  void addName(const std::string& kind, const std::string& name, std::int64_t count, std::int64_t event);
  void addPoint(std::int64_t second, const std::string& kind, const std::string& name);
  void addValue(const std::string& kind, const std::string& name, const std::string& attribute, const Value& value,
                std::int64_t count, std::int64_t event);
  /// How often that value of an attribute was counted in this session so far.
  [[nodiscard]] std::int64_t countedSoFar(const std::string& kind, const std::string& name,
                                          const std::string& attribute, const Value& value);

  /// Writes the counts, and reports what they say about the quality.
  void write(Quality& quality);

 private:
  struct Count {
    std::int64_t count = 0;
    std::int64_t event = 0;
  };
  struct Attribute {
    std::map<unsigned, std::pair<std::int64_t, Value>> types;  // the first event of each type, and its value
    std::map<std::string, std::int64_t> values;                // as JSON text
  };
  using Name = std::pair<std::string, std::string>;  // kind and name
  using AttributeName = std::tuple<std::string, std::string, std::string>;

  void writeNames(Quality& quality);
  void writePoints();
  void writeAttribute(std::int64_t session, const AttributeName& of, const Attribute& attribute, Quality* quality);

  Database& database_;
  std::int64_t session_;
  std::map<Name, Count> names_;
  std::map<std::tuple<std::int64_t, std::string, std::string>, std::int64_t> points_;
  std::map<AttributeName, Attribute> attributes_;
};

}  // namespace kelvo::collector
