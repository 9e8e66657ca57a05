#include <fmt/format.h>

#include "kelvo-events/Forms.h"
#include "kelvo-events/Names.h"
#include "kelvo-events/Wording.h"

namespace kelvo::registry {
namespace {

/// Returns an enumeration of the attribute's values, and a list of their texts in the same order.
std::string writeChoices(const Attribute& attribute) {
  std::string names;
  std::string texts;
  for (const Choice& choice : attribute.choices) {
    names += (names.empty() ? "" : ", ") + upperCamel(choice.code);
    texts += (texts.empty() ? "" : ", ") + literal(choice.text);
  }
  return fmt::format("  // {} It is {}.\n  enum {} {{ {} }}\n  readonly property var textsOf{}: [{}]\n",
                     sentence(attribute.meaning), ruleOf(attribute), attribute.code, names, attribute.code, texts);
}

/// Returns the condition under which `name` has the attribute's type and range.
std::string conditionOf(const Attribute& attribute, const std::string& name) {
  if (!attribute.choices.empty()) return fmt::format("textsOf{}[{}] !== undefined", attribute.code, name);
  if (attribute.type == Type::text) return fmt::format("typeof {0} === \"string\" && {0} !== \"\"", name);
  if (attribute.type == Type::boolean) return fmt::format("typeof {} === \"boolean\"", name);
  std::string text = fmt::format("Number.{}({})", attribute.type == Type::integer ? "isInteger" : "isFinite", name);
  if (attribute.least) text += fmt::format(" && {} >= {}", name, shownNumber(*attribute.least));
  if (attribute.most) text += fmt::format(" && {} <= {}", name, shownNumber(*attribute.most));
  return text;
}

std::string writeFunction(const Event& event) {
  std::string comments = fmt::format("  // {}\n", describe(event));
  std::string parameters;
  std::string body;
  for (const Attribute& attribute : event.attributes) {
    const std::string name = lowerCamel(attribute.code);
    comments += fmt::format("  // {}: {} It is {}{}.\n", name, sentence(attribute.meaning), ruleOf(attribute),
                            attribute.isOptional ? ", or is left out" : "");
    parameters += (parameters.empty() ? "" : ", ") + name;
    const std::string content = attribute.choices.empty() ? name : fmt::format("textsOf{}[{}]", attribute.code, name);
    const std::string indent = attribute.isOptional ? "      " : "    ";
    if (attribute.isOptional) body += fmt::format("    if ({} !== undefined) {{\n", name);
    body += fmt::format("{}if (!({})) throw new TypeError({});\n", indent, conditionOf(attribute, name),
                        literal(fmt::format("{}: {} is not {}", event.code, name, ruleOf(attribute))));
    body += fmt::format("{}attributes[{}] = {};\n", indent, literal(attribute.name), content);
    if (attribute.isOptional) body += "    }\n";
  }
  return fmt::format("\n{}  function {}({}) {{\n    const attributes = {{}};\n{}    Kelvo.{}({}, attributes);\n  }}\n",
                     comments, event.code, parameters, body, event.isAggregate ? "logAggregate" : "log",
                     literal(event.name));
}

}  // namespace

std::string qmlForm(const Registry& registry) {
  std::string text = fmt::format(
      "// {}\n// A wrong argument throws a TypeError and logs nothing.\nimport QtQml\nimport Kelvo\n\nQtObject {{\n",
      kNote);
  for (const Attribute* type : registry.types()) {
    if (!type->choices.empty()) text += writeChoices(*type);
  }
  for (const Event& event : registry.events) text += writeFunction(event);
  return text + "}\n";
}

}  // namespace kelvo::registry
