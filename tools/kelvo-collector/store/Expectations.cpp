#include "kelvo-collector/store/Expectations.h"

#include <algorithm>

#include "kelvo-collector/store/Problems.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

constexpr std::size_t kLongestText = 200;  // bytes of a value in a message

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

}  // namespace

bool Expectations::readRule(const Value& value, const std::string& place, Rule& rule,
                            std::vector<std::string>& errors) {
  const std::size_t before = errors.size();
  const auto readType = [&](const Value& type) {
    const auto* name = type.get<std::string>();
    rule.type = name == nullptr ? kNoType : typeCalled(*name);
    if (rule.type == kNoType)
      errors.push_back(place + R"(type is none of "text", "number", "boolean", "list", "dictionary")");
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
  if (members == nullptr) errors.push_back(place + R"(the expectation is not an object with "attributes" or "others")");
  for (const auto& [member, content] : members == nullptr ? Dictionary{} : *members) {
    if (member == "attributes") {
      const auto* rules = content.get<Dictionary>();
      if (rules == nullptr) errors.push_back(place + "attributes is not an object");
      for (const auto& [attribute, rule] : rules == nullptr ? Dictionary{} : *rules) {
        readRule(rule, name + "." + attribute + ": ", expected.attributes[attribute], errors);
      }
    } else if (member == "others") {
      const bool* others = content.get<bool>();
      if (others == nullptr)
        errors.push_back(place + "others is not true or false");
      else
        expected.allowsOthers = *others;
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

std::vector<std::string> Expectations::names() const {
  std::vector<std::string> names;
  for (const auto& event : events_) names.push_back(event.first);
  return names;
}

std::string Expectations::breachOf(const Rule& rule, const Value& value) {
  if (rule.type != kNoType && typeOf(value) != rule.type) return std::string("a ") + nameOfType(rule.type);
  if (rule.least && value.asDouble() < *rule.least) return "at least " + textOf(*rule.least);
  if (rule.most && value.asDouble() > *rule.most) return "at most " + textOf(*rule.most);
  const auto isValue = [&](const Value& allowed) { return typeOf(allowed) == typeOf(value) && allowed == value; };
  if (rule.values && std::none_of(rule.values->begin(), rule.values->end(), isValue)) {
    return "one of " + shown(*rule.values);
  }
  return {};
}

std::vector<Fault> Expectations::faultsOf(const std::string& name, const Dictionary& attributes) const {
  const auto found = events_.find(name);
  if (found == events_.end()) return {};
  std::vector<Fault> faults;
  for (const auto& [attribute, rule] : found->second.attributes) {
    const Value* value = attributes.find(attribute);
    if (value == nullptr || value->isNull()) {
      if (rule.isRequired) faults.push_back({attribute, quoted(attribute) + " is missing", {}});
      continue;
    }
    const std::string breach = breachOf(rule, *value);
    if (!breach.empty())
      faults.push_back({attribute, quoted(attribute) + " is " + shown(*value) + ", not " + breach, *value});
  }
  if (found->second.allowsOthers) return faults;
  for (const auto& [attribute, value] : attributes) {
    if (isOfLibrary(attribute) || found->second.attributes.count(attribute) != 0) continue;
    faults.push_back({attribute, quoted(attribute) + " is not expected", value});
  }
  return faults;
}

}  // namespace kelvo::collector
