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

/// An application event, or the sums of an aggregate event in one session.
struct EventToJudge {
  const std::string& name;
  const Dictionary& attributes;  ///< of an aggregate: for each attribute, pairs of a value's text and its count
  bool isAggregate = false;
};

/// The document "expectations": for some event names, the attributes that each event must have. An example:
/// `{"Purchase": {"attributes": {"item": {"values": ["book", "pen"]}, "price": {"type": "number", "min": 0}},
///   "others": false, "aggregate": false}, "*": false}`. A rule may be short: `"price": "number"`. An event with
///   `false`
/// must not come. "*" is every event that has no expectation of its own and is not the library's.
class Expectations {
 public:
  Expectations() = default;
  /// Reads the document. Returns nullopt and appends to `errors` if the document is not valid.
  [[nodiscard]] static std::optional<Expectations> parse(const Value& document, std::vector<std::string>& errors);

  [[nodiscard]] bool cover(const std::string& name) const { return expectationOf(name) != nullptr; }
  /// Returns the faults of an event, none if it is good or has no expectation. Ignores the library's own attributes.
  [[nodiscard]] std::vector<Fault> faultsOf(const EventToJudge& event) const;

 private:
  struct Rule {
    TypeBit type = kNoType;  // kNoType allows every type
    std::optional<double> least;
    std::optional<double> most;
    std::optional<Array> values;
    bool isRequired = true;
    bool isWhole = false;  // a number without a fraction
  };
  struct Expected {
    std::map<std::string, Rule> attributes;
    bool allowsOthers = true;
    bool mayCome = true;
    std::optional<bool> isAggregate;
  };

  /// Return false and append to `errors` if the value is not valid. `place` begins each message.
  static bool readRule(const Value& value, const std::string& place, Rule& rule, std::vector<std::string>& errors);
  static bool readExpected(const Value& value, const std::string& name, Expected& expected,
                           std::vector<std::string>& errors);
  /// Returns what `value` should be, empty if it obeys the rule.
  static std::string breachOf(const Rule& rule, const Value& value);
  /// An aggregate counts its values as texts. Returns `text` as a value of the type that the rule asks for.
  static Value countedValue(const Rule& rule, const Value& text);
  /// Returns nullptr if there is none.
  [[nodiscard]] const Expected* expectationOf(const std::string& name) const;

  std::map<std::string, Expected> events_;
};

}  // namespace kelvo::collector
