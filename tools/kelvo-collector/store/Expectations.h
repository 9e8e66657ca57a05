#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kelvo-collector/store/Types.h"
#include "kelvo/Value.h"

namespace kelvo::collector {

/// The reason why an event is not as expected.
struct Fault {
  std::string attribute;
  std::string message;
  Value value;  ///< of the attribute, null if it is missing
};

/// The document "expectations": for some event names, the attributes that each application event must have. An example:
/// `{"Purchase": {"attributes": {"item": {"values": ["book", "pen"]}, "price": {"type": "number", "min": 0}},
///   "others": false}}`. A rule may be short: `"price": "number"`.
class Expectations {
 public:
  Expectations() = default;
  /// Reads the document. Returns nullopt and appends to `errors` if the document is not valid.
  [[nodiscard]] static std::optional<Expectations> parse(const Value& document, std::vector<std::string>& errors);

  [[nodiscard]] bool cover(const std::string& name) const { return events_.count(name) != 0; }
  /// Returns the names of all events with an expectation.
  [[nodiscard]] std::vector<std::string> names() const;
  /// Returns the faults of an event, none if it is good or has no expectation. Ignores the library's own attributes.
  [[nodiscard]] std::vector<Fault> faultsOf(const std::string& name, const Dictionary& attributes) const;

 private:
  struct Rule {
    TypeBit type = kNoType;  // kNoType allows every type
    std::optional<double> least;
    std::optional<double> most;
    std::optional<Array> values;
    bool isRequired = true;
  };
  struct Expected {
    std::map<std::string, Rule> attributes;
    bool allowsOthers = true;
  };

  /// Return false and append to `errors` if the value is not valid. `place` begins each message.
  static bool readRule(const Value& value, const std::string& place, Rule& rule, std::vector<std::string>& errors);
  static bool readExpected(const Value& value, const std::string& name, Expected& expected,
                           std::vector<std::string>& errors);
  /// Returns what `value` should be, empty if it obeys the rule.
  static std::string breachOf(const Rule& rule, const Value& value);

  std::map<std::string, Expected> events_;
};

}  // namespace kelvo::collector
