#include "kelvo-events/Registry.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <map>
#include <utility>

#include "kelvo-events/Dates.h"
#include "kelvo-events/Names.h"
#include "kelvo-events/Places.h"
#include "kelvo-service/Documents.h"
#include "kelvo/Value.h"
#include "platform/JSON.h"

namespace kelvo::registry {
namespace {

constexpr std::string_view kOfLibrary = "klv_";  // begins names of events and attributes of the library
constexpr std::string_view kReservedAttributes[] = {"__custom_info__", "__additional_info__"};
constexpr const char* kAnyOther = "*";                  // in the collector's expectations
constexpr const char* kTime = "time";                   // no aggregate counts an attribute of this name
constexpr double kLargestInteger = 9007199254740992.0;  // 2^53: beyond, JSON readers lose digits
constexpr double kMostCounted = 100;                    // values of an attribute that an aggregate should count
constexpr int kDaysOfWarning = 30;

constexpr std::pair<const char*, Type> kTypes[] = {
    {"text", Type::text}, {"integer", Type::integer}, {"number", Type::number}, {"boolean", Type::boolean}};

bool isControl(char c) {
  return (static_cast<unsigned char>(c) < ' ') || c == '\x7f';
}

std::string quoted(const std::string& text) {
  return "\"" + text + "\"";
}

/// Returns the offset that a message of `parseJSON` ends with.
std::size_t offsetIn(const std::string& error) {
  const std::size_t digits = error.find_last_not_of("0123456789") + 1;
  std::size_t offset = 0;
  std::from_chars(error.data() + digits, error.data() + error.size(), offset);
  return offset;
}

bool isNumeric(Type type) {
  return type == Type::integer || type == Type::number;
}

/// Reads the values of a registry, and notes their faults. Used once.
class Reader {
 public:
  explicit Reader(std::string today) : today_(std::move(today)) {}

  Registry read(const Value& document);
  std::vector<Finding> findings;

 private:
  void fault(const std::string& place, std::string message) { findings.push_back({place, std::move(message)}); }
  void warn(const std::string& place, std::string message) { findings.push_back({place, std::move(message), true}); }

  // Each returns the content of a member, or an empty one after a fault.
  std::string text(const Dictionary& object, const char* member, const std::string& place, bool isRequired = true);
  bool flag(const Dictionary& object, const char* member, const std::string& place);
  std::optional<double> number(const Dictionary& object, const char* member, const Attribute& attribute);
  Array list(const Dictionary& object, const char* member, const std::string& place);
  std::string code(const Dictionary& object, const std::string& name, const std::string& place);

  void checkMembers(const Dictionary& object, std::initializer_list<std::string_view> known, const std::string& place);
  void checkEventName(const Event& event);
  void checkDate(const Event& event);
  void checkCounted(const Attribute& attribute);
  void checkTypes(const Registry& registry);
  Event readEvent(const Value& value, const std::string& place);
  Attribute readAttribute(const Value& value, const std::string& place, bool isCounted);
  void readRange(const Dictionary& object, Attribute& attribute);
  void readChoices(const Dictionary& object, Attribute& attribute);

  const std::string today_;
  std::map<std::string, std::string> names_;      // of events in lower case, with their places
  std::map<std::string, std::string> functions_;  // with the places of their events
};

std::string Reader::text(const Dictionary& object, const char* member, const std::string& place, bool isRequired) {
  const Value* value = object.find(member);
  if (value == nullptr) {
    if (isRequired) fault(place, std::string(member) + " is missing");
    return {};
  }
  const std::string here = place + "." + member;
  const auto* content = value->get<std::string>();
  if (content == nullptr || content->empty()) {
    fault(here, std::string(member) + " is not a text with at least one character");
    return {};
  }
  if (std::any_of(content->begin(), content->end(), isControl)) {
    fault(here, std::string(member) + " has a control character, such as a line feed");
  } else if (content->front() == ' ' || content->back() == ' ') {
    fault(here, std::string(member) + " begins or ends with a blank");
  }
  return *content;
}

bool Reader::flag(const Dictionary& object, const char* member, const std::string& place) {
  const Value* value = object.find(member);
  if (value == nullptr) return false;
  const bool* content = value->get<bool>();
  if (content == nullptr) fault(place + "." + member, std::string(member) + " is neither true nor false");
  return content != nullptr && *content;
}

std::optional<double> Reader::number(const Dictionary& object, const char* member, const Attribute& attribute) {
  const Value* value = object.find(member);
  if (value == nullptr) return std::nullopt;
  const std::string place = attribute.place + "." + member;
  if (!isNumeric(attribute.type)) {
    fault(place, std::string("only an integer or a number has ") + member);
  } else if (!value->isNumber() || value->get<bool>() != nullptr) {
    fault(place, std::string(member) + " is not a number");
  } else if (attribute.type == Type::integer && value->asDouble() != std::floor(value->asDouble())) {
    fault(place, std::string(member) + " of an integer is not a whole number");
  } else if (attribute.type == Type::integer && std::abs(value->asDouble()) > kLargestInteger) {
    fault(place, std::string(member) + " is beyond 9007199254740992, and not every reader of JSON keeps its digits");
  } else {
    return value->asDouble();
  }
  return std::nullopt;
}

Array Reader::list(const Dictionary& object, const char* member, const std::string& place) {
  const Value* value = object.find(member);
  if (value == nullptr) return {};
  const auto* content = value->get<Array>();
  if (content == nullptr) fault(place.empty() ? member : place + "." + member, std::string(member) + " is not a list");
  return content == nullptr ? Array() : *content;
}

/// Returns the member "code", else `name`.
std::string Reader::code(const Dictionary& object, const std::string& name, const std::string& place) {
  const bool isGiven = object.contains("code");
  const std::string given = isGiven ? text(object, "code", place) : name;
  if (!given.empty() && upperCamel(given).empty()) {
    fault(isGiven ? place + ".code" : place, quoted(given) + " has no ASCII letter or digit to make a name in code of" +
                                                 (isGiven ? "" : "; add a \"code\""));
  }
  return given;
}

void Reader::checkMembers(const Dictionary& object, std::initializer_list<std::string_view> known,
                          const std::string& place) {
  for (const auto& [name, value] : object) {
    if (std::find(known.begin(), known.end(), name) != known.end()) continue;
    std::string all;
    for (const std::string_view each : known) all.append(all.empty() ? "" : ", ").append(each);
    fault(place.empty() ? name : place + "." + name,
          "there is no member " + quoted(name) + "; the members are: " + all);
  }
}

void Reader::checkEventName(const Event& event) {
  const std::string place = event.place + ".name";
  if (service::isTrigger(event.name) || event.name.rfind(kOfLibrary, 0) == 0) {
    fault(place, quoted(event.name) + " is a name of the library's own events, as are all that begin with \"klv_\"");
  } else if (event.name == kAnyOther) {
    fault(place, "\"*\" is the collector's name for all other events");
  }
  const auto [name, isNewName] = names_.emplace(lowerCased(event.name), event.place);
  if (!isNewName) {
    fault(place, quoted(event.name) + " is the name of " + name->second + ", too, or differs from it only in case");
    return;
  }
  const auto [function, isNew] = functions_.emplace(event.code, event.place);
  if (!isNew && !event.code.empty()) {
    fault(place, quoted(event.name) + " and " + function->second + " give the same function " + event.code +
                     "; add a \"code\" to one of them");
  }
}

void Reader::checkDate(const Event& event) {
  if (!event.keptUntil) return;
  const std::string place = event.place + ".kept_until";
  const auto last = dayOf(*event.keptUntil);
  if (!last) {
    fault(place, quoted(*event.keptUntil) + " is not a date such as \"2027-12-31\"");
    return;
  }
  const auto today = dayOf(today_);
  if (!today) return;
  if (*today > *last) {
    fault(place, quoted(event.name) + " was to be kept until " + *event.keptUntil + ": remove it, or extend the date");
  } else if (*last - *today < kDaysOfWarning) {
    warn(place, quoted(event.name) + " is kept until " + *event.keptUntil + " only");
  }
}

void Reader::checkCounted(const Attribute& attribute) {
  if (attribute.name == kTime) fault(attribute.place + ".name", "an aggregate does not count an attribute \"time\"");
  const bool isShortRange = attribute.type == Type::integer && attribute.least && attribute.most &&
                            *attribute.most - *attribute.least < kMostCounted;
  if (attribute.type == Type::boolean || !attribute.choices.empty() || isShortRange) return;
  warn(attribute.place, "an aggregate counts each value of " + quoted(attribute.name) +
                            ": give it values, or as an integer a range of at most 100");
}

/// Attributes that share a type in code must follow one rule.
void Reader::checkTypes(const Registry& registry) {
  std::map<std::string, const Attribute*> types;
  for (const Event& event : registry.events) {
    for (const Attribute& attribute : event.attributes) {
      if (attribute.code.empty()) continue;
      const auto [first, isNew] = types.emplace(attribute.code, &attribute);
      if (isNew || haveOneType(attribute, *first->second)) continue;
      fault(attribute.place, "the type " + attribute.code + " differs from that of " + first->second->place +
                                 " in type, unit, range or values: make them equal, or add a \"code\"");
    }
  }
}

void Reader::readRange(const Dictionary& object, Attribute& attribute) {
  attribute.unit = text(object, "unit", attribute.place, false);
  if (!attribute.unit.empty() && !isNumeric(attribute.type)) {
    fault(attribute.place + ".unit", "only an integer or a number has a unit");
  }
  attribute.least = number(object, "min", attribute);
  attribute.most = number(object, "max", attribute);
  if (attribute.least && attribute.most && *attribute.least > *attribute.most) {
    fault(attribute.place + ".min", "min is above max");
  }
}

void Reader::readChoices(const Dictionary& object, Attribute& attribute) {
  if (!object.contains("values")) return;
  const std::string place = attribute.place + ".values";
  if (attribute.type != Type::text) fault(place, "only a text has values");
  const Array values = list(object, "values", attribute.place);
  if (values.empty()) fault(place, "values is not a list with a value");
  std::map<std::string, std::string> codes;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const std::string here = place + "[" + std::to_string(i) + "]";
    Dictionary form{{"text", values[i]}};
    if (const auto* full = values[i].get<Dictionary>()) {
      form = *full;
      checkMembers(form, {"text", "code"}, here);
    } else if (values[i].get<std::string>() == nullptr) {
      fault(here, "the value is neither a text nor an object with \"text\" and \"code\"");
      continue;
    }
    Choice choice{text(form, "text", here), {}};
    choice.code = lowerCamel(code(form, choice.text, here));
    const auto [first, isNew] = codes.emplace(choice.code, choice.text);
    if (!isNew && !choice.code.empty()) {
      fault(here, quoted(choice.text) + " and " + quoted(first->second) + " are both " + choice.code + " in code");
    }
    attribute.choices.push_back(std::move(choice));
  }
}

Attribute Reader::readAttribute(const Value& value, const std::string& place, bool isCounted) {
  Attribute attribute;
  attribute.place = place;
  const auto* object = value.get<Dictionary>();
  if (object == nullptr) {
    fault(place, "the attribute is not an object");
    return attribute;
  }
  const std::size_t before = findings.size();
  checkMembers(*object, {"name", "meaning", "type", "unit", "min", "max", "values", "optional", "code"}, place);
  attribute.name = text(*object, "name", place);
  const bool isReserved = std::find(std::begin(kReservedAttributes), std::end(kReservedAttributes), attribute.name) !=
                          std::end(kReservedAttributes);
  if (isReserved || attribute.name.rfind(kOfLibrary, 0) == 0) {
    fault(place + ".name", quoted(attribute.name) + " is a name of the library's own attributes");
  }
  attribute.meaning = text(*object, "meaning", place);
  attribute.code = upperCamel(code(*object, attribute.name, place));
  attribute.isOptional = flag(*object, "optional", place);
  const std::string type = text(*object, "type", place);
  const auto known = std::find_if(std::begin(kTypes), std::end(kTypes), [&](const auto& t) { return type == t.first; });
  if (known == std::end(kTypes)) {
    if (!type.empty()) fault(place + ".type", quoted(type) + " is none of text, integer, number, boolean");
    return attribute;
  }
  attribute.type = known->second;
  readRange(*object, attribute);
  readChoices(*object, attribute);
  if (isCounted && findings.size() == before) checkCounted(attribute);
  return attribute;
}

Event Reader::readEvent(const Value& value, const std::string& place) {
  Event event;
  event.place = place;
  const auto* object = value.get<Dictionary>();
  if (object == nullptr) {
    fault(place, "the event is not an object");
    return event;
  }
  checkMembers(*object, {"name", "meaning", "owner", "attributes", "aggregate", "kept_until", "code"}, place);
  event.name = text(*object, "name", place);
  event.code = lowerCamel(code(*object, event.name, place));
  if (!event.name.empty()) checkEventName(event);
  event.meaning = text(*object, "meaning", place);
  event.owner = text(*object, "owner", place);
  event.isAggregate = flag(*object, "aggregate", place);
  if (object->contains("kept_until")) event.keptUntil = text(*object, "kept_until", place);
  checkDate(event);
  const Array attributes = list(*object, "attributes", place);
  std::map<std::string, std::string> names;
  std::map<std::string, std::string> codes;
  for (std::size_t i = 0; i < attributes.size(); ++i) {
    const std::string here = place + ".attributes[" + std::to_string(i) + "]";
    Attribute attribute = readAttribute(attributes[i], here, event.isAggregate);
    const auto [name, isNewName] = names.emplace(attribute.name, here);
    const auto [code, isNewCode] = codes.emplace(attribute.code, here);
    if (!isNewName && !attribute.name.empty()) {
      fault(here + ".name", quoted(attribute.name) + " is the name of " + name->second + ", too");
    } else if (!isNewCode && !attribute.code.empty()) {
      fault(here, quoted(attribute.name) + " and " + code->second + " are both " + attribute.code +
                      " in code; add a \"code\" to one of them");
    }
    event.attributes.push_back(std::move(attribute));
  }
  std::stable_partition(event.attributes.begin(), event.attributes.end(),
                        [](const Attribute& each) { return !each.isOptional; });
  return event;
}

Registry Reader::read(const Value& document) {
  Registry registry;
  const auto* object = document.get<Dictionary>();
  if (object == nullptr || !object->contains("events")) {
    fault("", "the file is not an object with the list \"events\"");
    return registry;
  }
  checkMembers(*object, {"events"}, "");
  const Array events = list(*object, "events", "");
  for (std::size_t i = 0; i < events.size(); ++i) {
    registry.events.push_back(readEvent(events[i], "events[" + std::to_string(i) + "]"));
  }
  checkTypes(registry);
  return registry;
}

}  // namespace

bool haveOneType(const Attribute& one, const Attribute& other) {
  const auto isSame = [](const Choice& a, const Choice& b) { return a.text == b.text && a.code == b.code; };
  return one.type == other.type && one.unit == other.unit && one.least == other.least && one.most == other.most &&
         std::equal(one.choices.begin(), one.choices.end(), other.choices.begin(), other.choices.end(), isSame);
}

std::vector<const Attribute*> Registry::types() const {
  std::map<std::string, bool> known;
  std::vector<const Attribute*> all;
  for (const Event& event : events) {
    for (const Attribute& attribute : event.attributes) {
      if (!std::exchange(known[attribute.code], true)) all.push_back(&attribute);
    }
  }
  return all;
}

bool Reading::hasFaults() const {
  return std::any_of(findings.begin(), findings.end(), [](const Finding& each) { return !each.isWarning; });
}

Reading readRegistry(std::string_view text, const std::string& today) {
  std::string error;
  const auto document = parseJSON(text, &error);
  if (!document) {
    const Position position = positionOf(text, offsetIn(error));
    return {{}, {{"", "this is not JSON: " + error, false, position.line, position.column}}};
  }
  Reader reader(today);
  Reading reading{reader.read(*document), {}};
  reading.findings = std::move(reader.findings);
  const Places places(text);
  for (const std::string& path : places.repeated()) {
    reading.findings.push_back({path, "an earlier member of this object has the same name"});
  }
  for (Finding& finding : reading.findings) {
    const Position position = places.of(finding.place);
    finding.line = position.line;
    finding.column = position.column;
  }
  std::stable_sort(reading.findings.begin(), reading.findings.end(), [](const Finding& a, const Finding& b) {
    return std::pair(a.line, a.column) < std::pair(b.line, b.column);
  });
  return reading;
}

}  // namespace kelvo::registry
