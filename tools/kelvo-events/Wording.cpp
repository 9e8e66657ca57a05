#include "kelvo-events/Wording.h"

#include <fmt/format.h>

#include "platform/JSON.h"

namespace kelvo::registry {

std::string sentence(const std::string& text) {
  constexpr std::string_view kMarks = ".!?";
  return text.empty() || kMarks.find(text.back()) != std::string_view::npos ? text : text + ".";
}

std::string describe(const Event& event) {
  std::string text = sentence(event.meaning) + " Owner: " + sentence(event.owner);
  if (event.isAggregate) text += " Only counted.";
  if (event.keptUntil) text += " Kept until " + *event.keptUntil + ".";
  return text;
}

std::string ruleOf(const Attribute& attribute) {
  switch (attribute.type) {
    case Type::text: return attribute.choices.empty() ? "a text with at least one character" : "one of the values";
    case Type::boolean: return "true or false";
    case Type::integer:
    case Type::number: break;
  }
  std::string text = attribute.type == Type::integer ? "a whole number" : "a number";
  if (attribute.least) text += (attribute.most ? " from " : " of at least ") + shownNumber(*attribute.least);
  if (attribute.most) text += (attribute.least ? " to " : " of at most ") + shownNumber(*attribute.most);
  return attribute.unit.empty() ? text : text + ", in " + attribute.unit;
}

std::string shownNumber(double number) {
  return fmt::format("{}", number);
}

std::string literal(std::string_view text) {
  std::string quoted;
  appendQuoted(quoted, text);
  return replaced(std::move(quoted),
                  "?"
                  "?",
                  "?\\?");  // no trigraph of older C
}

std::string replaced(std::string text, std::string_view from, std::string_view to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

}  // namespace kelvo::registry
