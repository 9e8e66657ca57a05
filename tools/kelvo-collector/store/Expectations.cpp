#include "kelvo-collector/store/Expectations.h"

#include <algorithm>
#include <cmath>

#include "kelvo-collector/store/Problems.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

constexpr std::size_t kLongestText = 200;  // bytes of a value in a message
constexpr const char* kWholeNumber = "integer";
constexpr const char* kAnyOther = "*";  // the name of the expectation for all names without one

TypeBit typeCalled(const std::string& name) {
  for (const TypeBit type : kAllTypes) {
    if (name == nameOfType(type)) return type;
  }
  return kNoType;
}

bool isNumber(const Value& value) {
  return typeOf(value) == kNumber;
}

std::string shown(const Value& value) {
  const std::string text = jsonText(value).value_or("null");
  return text.size() <= kLongestText ? text : "too long to show";
}

std::string textOf(double number) {
  return description(Value(number));
}

bool isWhole(const Value& number) {
  return number.isInteger() || number.asDouble() == std::floor(number.asDouble());
}

/// Returns the values of an attribute of an event: one, or each one that an aggregate has counted.
Array valuesOf(const Value& attribute, bool isAggregate) {
  if (!isAggregate) return Array{attribute};
  Array values;
  for (const Value& counted : attribute.asArray().value_or(Array())) {
    const auto pair = counted.asArray().value_or(Array());
    if (!pair.empty() && !pair[0].isNull()) values.append(pair[0]);
  }
  return values;
}

}  // namespace

bool Expectations::readRule(const Value& value, const std::string& place, Rule& rule,
                            std::vector<std::string>& errors) {
  const std::size_t before = errors.size();
  const auto readType = [&](const Value& type) {
    const auto* name = type.get<std::string>();
    rule.isWhole = name != nullptr && *name == kWholeNumber;
    rule.type = name == nullptr ? kNoType : rule.isWhole ? kNumber : typeCalled(*name);
    if (rule.type == kNoType)
      errors.push_back(place + R"(type is none of "text", "number", "integer", "boolean", "list", "dictionary")");
  };
  if (value.get<std::string>() != nullptr) readType(value);
  const auto* members = value.get<Dictionary>();
  if (members == nullptr && value.get<std::string>() == nullptr) {
    errors.push_back(place + "the rule is neither a type nor an object");
  }
  for (const auto& [member, content] : members == nullptr ? Dictionary{} : *members) {
    if (member == "type") {
      readType(content);
    } else if (member == "min" || member == "max") {
      if (isNumber(content))
        (member == "min" ? rule.least : rule.most) = content.asDouble();
      else
        errors.push_back(place + member + " is not a number");
    } else if (member == "values") {
      rule.values = content.asArray();
      if (!rule.values || rule.values->empty()) errors.push_back(place + "values is not a list with a value");
    } else if (member == "required") {
      const bool* required = content.get<bool>();
      if (required == nullptr)
        errors.push_back(place + "required is not true or false");
      else
        rule.isRequired = *required;
    } else {
      errors.push_back(place + "there is no member " + quoted(member));
    }
  }
  const bool hasRange = rule.least || rule.most;
  if (hasRange && rule.type != kNoType && rule.type != kNumber)
    errors.push_back(place + "only a number has min and max");
  if (rule.least && rule.most && *rule.least > *rule.most) errors.push_back(place + "min is above max");
  if (rule.type == kNoType && hasRange) rule.type = kNumber;
  return errors.size() == before;
}

bool Expectations::readExpected(const Value& value, const std::string& name, Expected& expected,
                                std::vector<std::string>& errors) {
  const std::size_t before = errors.size();
  const std::string place = name + ": ";
  const auto* members = value.get<Dictionary>();
  expected.mayCome = members != nullptr;
  if (members == nullptr && value != Value(false)) {
    errors.push_back(place + R"(the expectation is neither false nor an object with "attributes" or "others")");
  }
  for (const auto& [member, content] : members == nullptr ? Dictionary{} : *members) {
    if (member == "attributes") {
      const auto* rules = content.get<Dictionary>();
      if (rules == nullptr) errors.push_back(place + "attributes is not an object");
      for (const auto& [attribute, rule] : rules == nullptr ? Dictionary{} : *rules) {
        readRule(rule, name + "." + attribute + ": ", expected.attributes[attribute], errors);
      }
    } else if (member == "others" || member == "aggregate") {
      const bool* flag = content.get<bool>();
      if (flag == nullptr)
        errors.push_back(place + member + " is not true or false");
      else if (member == "others")
        expected.allowsOthers = *flag;
      else
        expected.isAggregate = *flag;
    } else {
      errors.push_back(place + "there is no member " + quoted(member));
    }
  }
  return errors.size() == before;
}

std::optional<Expectations> Expectations::parse(const Value& document, std::vector<std::string>& errors) {
  const auto* events = document.get<Dictionary>();
  if (events == nullptr) {
    errors.emplace_back("the body is not an object with the names of events");
    return std::nullopt;
  }
  Expectations all;
  bool isValid = true;
  for (const auto& [name, value] : *events) isValid &= readExpected(value, name, all.events_[name], errors);
  return isValid ? std::optional(std::move(all)) : std::nullopt;
}

const Expectations::Expected* Expectations::expectationOf(const std::string& name) const {
  auto found = events_.find(name);
  if (found == events_.end() && !isOfLibrary(name)) found = events_.find(kAnyOther);
  return found == events_.end() ? nullptr : &found->second;
}

std::string Expectations::breachOf(const Rule& rule, const Value& value) {
  if ((rule.type != kNoType && typeOf(value) != rule.type) || (rule.isWhole && !isWhole(value))) {
    return rule.isWhole ? "a whole number" : std::string("a ") + nameOfType(rule.type);
  }
  if (rule.least && value.asDouble() < *rule.least) return "at least " + textOf(*rule.least);
  if (rule.most && value.asDouble() > *rule.most) return "at most " + textOf(*rule.most);
  const auto isValue = [&](const Value& allowed) { return typeOf(allowed) == typeOf(value) && allowed == value; };
  if (rule.values && std::none_of(rule.values->begin(), rule.values->end(), isValue)) {
    return "one of " + shown(*rule.values);
  }
  return {};
}

Value Expectations::countedValue(const Rule& rule, const Value& text) {
  const auto* digits = text.get<std::string>();
  if (digits == nullptr || rule.type == kText) return text;
  for (const Value& allowed : rule.values.value_or(Array())) {
    if (description(allowed) == *digits) return allowed;
  }
  const Value parsed = parseJSON(*digits).value_or(Value());
  const bool isBit = parsed == Value(0) || parsed == Value(1);
  if (rule.type == kBoolean && isBit) return parsed.asBool();
  return rule.type == kNumber && isNumber(parsed) ? parsed : text;
}

std::vector<Fault> Expectations::faultsOf(const EventToJudge& event) const {
  const Expected* expected = expectationOf(event.name);
  if (expected == nullptr) return {};
  if (!expected->mayCome) return {{{}, "the event is not expected", {}}};
  std::vector<Fault> faults;
  if (expected->isAggregate && *expected->isAggregate != event.isAggregate) {
    faults.push_back({{}, event.isAggregate ? "the event is an aggregate" : "the event is not an aggregate", {}});
  }
  for (const auto& [attribute, rule] : expected->attributes) {
    const Value* content = event.attributes.find(attribute);
    if (content == nullptr || content->isNull()) {
      if (rule.isRequired) faults.push_back({attribute, quoted(attribute) + " is missing", {}});
      continue;
    }
    for (const Value& each : valuesOf(*content, event.isAggregate)) {
      const Value value = event.isAggregate ? countedValue(rule, each) : each;
      const std::string breach = breachOf(rule, value);
      if (!breach.empty())
        faults.push_back({attribute, quoted(attribute) + " is " + shown(value) + ", not " + breach, value});
    }
  }
  if (expected->allowsOthers) return faults;
  for (const auto& [attribute, value] : event.attributes) {
    if (isOfLibrary(attribute) || expected->attributes.count(attribute) != 0) continue;
    faults.push_back({attribute, quoted(attribute) + " is not expected", value});
  }
  return faults;
}

}  // namespace kelvo::collector
