#include <fmt/format.h>

#include "kelvo-events/Forms.h"
#include "kelvo-events/Names.h"
#include "kelvo-events/Wording.h"

namespace kelvo::registry {
namespace {

/// Escapes what tools for documentation would take as a command.
std::string comment(std::string text) {
  for (const char* sign : {"\\", "@", "<"}) text = replaced(std::move(text), sign, std::string("\\") + sign);
  return text;
}

std::string writeEnumeration(const Attribute& attribute) {
  std::string names;
  std::string cases;
  for (const Choice& choice : attribute.choices) {
    names += fmt::format("  {},\n", choice.code);
    cases += fmt::format("    case {}::{}: return {};\n", attribute.code, choice.code, literal(choice.text));
  }
  return fmt::format(
      "enum class {0} {{\n{1}}};\n\n"
      "/// Returns the value as events carry it.\n"
      "inline std::string_view textOf({0} value) noexcept {{\n  switch (value) {{\n{2}  }}\n  return {{}};\n}}\n",
      attribute.code, names, cases);
}

/// Writes a type that holds a number or a bool. Its constructor takes no other kind of argument.
std::string writeNumber(const Attribute& attribute) {
  const char* type = attribute.type == Type::integer  ? "std::int64_t"
                     : attribute.type == Type::number ? "double"
                                                      : "bool";
  const char* condition = attribute.type == Type::boolean   ? "std::is_same_v<T, bool>"
                          : attribute.type == Type::integer ? "std::is_integral_v<T> && !std::is_same_v<T, bool>"
                                                            : "std::is_arithmetic_v<T> && !std::is_same_v<T, bool>";
  return fmt::format(
      "struct {0} {{\n"
      "  template <class T, std::enable_if_t<{2}, int> = 0>\n"
      "  explicit constexpr {0}(T content) noexcept : value{{static_cast<{1}>(content)}} {{}}\n"
      "  {1} value;\n}};\n",
      attribute.code, type, condition);
}

std::string writeType(const Attribute& attribute) {
  std::string text =
      fmt::format("/// {} It is {}.\n", comment(sentence(attribute.meaning)), comment(ruleOf(attribute)));
  if (!attribute.choices.empty()) return text + writeEnumeration(attribute);
  if (attribute.type != Type::text) return text + writeNumber(attribute);
  return text + fmt::format(
                    "struct {0} {{\n"
                    "  explicit {0}(std::string text) noexcept : value{{std::move(text)}} {{}}\n"
                    "  {0}(std::nullptr_t) = delete;\n"
                    "  std::string value;\n}};\n",
                    attribute.code);
}

/// Returns the content of an attribute in the body of its function.
std::string contentOf(const Attribute& attribute, const std::string& name) {
  if (!attribute.choices.empty()) return fmt::format("textOf({}{})", attribute.isOptional ? "*" : "", name);
  const std::string content = name + (attribute.isOptional ? "->value" : ".value");
  return attribute.type == Type::text ? fmt::format("std::move({})", content) : content;
}

/// The required attributes are one list: a dictionary that grows costs more than a call without this header.
std::string writeFunction(const Event& event) {
  std::string parameters;
  std::string required;
  std::string optional;
  for (const Attribute& attribute : event.attributes) {
    const std::string name = lowerCamel(attribute.code);
    const std::string key = literal(attribute.name);
    const std::string content = contentOf(attribute, name);
    parameters += parameters.empty() ? "" : ", ";
    if (attribute.isOptional) {
      parameters += fmt::format("std::optional<{}> {} = std::nullopt", attribute.code, name);
      optional += fmt::format("  if ({}) attributes.set({}, {});\n", name, key, content);
    } else {
      parameters += attribute.code + " " + name;
      required +=
          fmt::format("{}{{{}, {}}}", required.empty() ? "{" : ",\n                               ", key, content);
    }
  }
  const char* call = event.isAggregate ? "logAggregateEvent" : "logAppEventWithName";
  if (!required.empty()) required += "}";
  const std::string body = event.attributes.empty()
                               ? std::string()
                               : fmt::format("  kelvo::Dictionary attributes{};\n{}", required, optional);
  return fmt::format("/// {}\ninline void {}({}) {{\n{}  kelvo::KelvoSDK::{}({}{});\n}}\n", comment(describe(event)),
                     event.code, parameters, body, call, literal(event.name),
                     event.attributes.empty() ? "" : ", std::move(attributes)");
}

}  // namespace

std::string cppForm(const Registry& registry, const std::string& space) {
  std::string text = fmt::format(
      "// {}\n#pragma once\n\n"
      "#include <cstddef>\n#include <cstdint>\n#include <optional>\n#include <string>\n#include <string_view>\n"
      "#include <type_traits>\n#include <utility>\n\n#include \"kelvo/KelvoSDK.h\"\n\n"
      "// Each event is a function and each attribute a type of its own. A function may be called wherever\n"
      "// `kelvo::KelvoSDK` may: at any time, on any thread. No range is checked here: the collector reports a "
      "breach.\n"
      "namespace {} {{\n",
      kNote, space);
  for (const Attribute* type : registry.types()) text += "\n" + writeType(*type);
  for (const Event& event : registry.events) text += "\n" + writeFunction(event);
  return text + fmt::format("\n}}  // namespace {}\n", space);
}

}  // namespace kelvo::registry
