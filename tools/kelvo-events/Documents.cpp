#include <fmt/format.h>

#include "kelvo-events/Forms.h"
#include "kelvo-events/Wording.h"
#include "kelvo/Value.h"
#include "platform/JSON.h"

namespace kelvo::registry {
namespace {

/// Returns `text` as the content of a cell.
std::string cell(std::string text) {
  for (const char* sign : {"\\", "|", "<", "*", "_", "`"})
    text = replaced(std::move(text), sign, std::string("\\") + sign);
  return text;
}

std::string valuesOf(const Attribute& attribute) {
  if (attribute.choices.empty()) return cell(ruleOf(attribute));
  std::string texts;
  for (const Choice& choice : attribute.choices) texts += (texts.empty() ? "" : ", ") + cell(choice.text);
  return texts;
}

Dictionary ruleDocument(const Attribute& attribute) {
  Dictionary rule{{"type", attribute.type == Type::text      ? "text"
                           : attribute.type == Type::integer ? "integer"
                           : attribute.type == Type::number  ? "number"
                                                             : "boolean"}};
  if (attribute.least) rule.set("min", *attribute.least);
  if (attribute.most) rule.set("max", *attribute.most);
  Array values;
  for (const Choice& choice : attribute.choices) values.append(choice.text);
  if (!values.empty()) rule.set("values", values);
  if (attribute.isOptional) rule.set("required", false);
  return rule;
}

}  // namespace

std::string pageForm(const Registry& registry) {
  std::string text = fmt::format("<!-- {} -->\n# Events\n", kNote);
  for (const Event& event : registry.events) {
    text += fmt::format("\n## {}\n\n{}\n", cell(event.name), cell(describe(event)));
    if (event.attributes.empty()) continue;
    text += "\n| Attribute | Meaning | Values | In each event |\n|---|---|---|---|\n";
    for (const Attribute& attribute : event.attributes) {
      text += fmt::format("| {} | {} | {} | {} |\n", cell(attribute.name), cell(attribute.meaning), valuesOf(attribute),
                          attribute.isOptional ? "no" : "yes");
    }
  }
  return text;
}

std::string expectationsForm(const Registry& registry) {
  Dictionary document;
  for (const Event& event : registry.events) {
    Dictionary rules;
    for (const Attribute& attribute : event.attributes) rules.set(attribute.name, ruleDocument(attribute));
    document.set(event.name, Dictionary{{"attributes", rules}, {"others", false}, {"aggregate", event.isAggregate}});
  }
  document.set("*", false);
  return describingJSONText(document) + "\n";
}

}  // namespace kelvo::registry
