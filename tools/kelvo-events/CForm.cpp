#include <fmt/format.h>

#include "kelvo-events/Forms.h"
#include "kelvo-events/Names.h"
#include "kelvo-events/Wording.h"

namespace kelvo::registry {
namespace {

const char* typeName(Type type) {
  switch (type) {
    case Type::text: return "const char*";
    case Type::integer: return "int64_t";
    case Type::number: return "double";
    case Type::boolean: return "bool";
  }
  return "";
}

const char* setterOf(Type type) {
  switch (type) {
    case Type::text: return "text";
    case Type::integer: return "integer";
    case Type::number: return "number";
    case Type::boolean: return "bool";
  }
  return "";
}

/// Each type is a struct, because C converts enumerations and numbers into each other.
std::string writeType(const Attribute& attribute, const std::string& prefix) {
  const std::string name = prefix + attribute.code;
  std::string text = fmt::format("// {} It is {}.\ntypedef struct {} {{\n  {} value;\n}} {};\n",
                                 sentence(attribute.meaning), ruleOf(attribute), name, typeName(attribute.type), name);
  for (const Choice& choice : attribute.choices) {
    text += fmt::format("static const {0} {0}_{1} = {{{2}}};\n", name, choice.code, literal(choice.text));
  }
  return text;
}

std::string writeFunction(const Event& event, const std::string& prefix) {
  std::string parameters;
  std::string body;
  for (const Attribute& attribute : event.attributes) {
    const std::string name = lowerCamel(attribute.code);
    parameters += fmt::format("{}{}{}{}{}", parameters.empty() ? "" : ", ", attribute.isOptional ? "const " : "",
                              prefix + attribute.code, attribute.isOptional ? "* " : " ", name);
    if (attribute.isOptional) body += fmt::format("  if ({}) ", name);
    body += fmt::format("{}kelvo_attributes_set_{}(attributes, {}, {}{}value);\n", attribute.isOptional ? "" : "  ",
                        setterOf(attribute.type), literal(attribute.name), name, attribute.isOptional ? "->" : ".");
  }
  const char* call = event.isAggregate ? "kelvo_log_aggregate_event" : "kelvo_log_app_event";
  const bool isPlain = body.empty();
  return fmt::format("// {}\nstatic inline void {}{}({}) {{\n{}{}  {}({}, {}, 0);\n{}}}\n", describe(event), prefix,
                     event.code, parameters.empty() ? "void" : parameters,
                     isPlain ? "" : "  kelvo_attributes* attributes = kelvo_attributes_create();\n", body, call,
                     literal(event.name), isPlain ? "NULL" : "attributes",
                     isPlain ? "" : "  kelvo_attributes_free(attributes);\n");
}

}  // namespace

std::string cForm(const Registry& registry, const std::string& space) {
  const std::string prefix = replaced(space, "::", "_") + "_";
  std::string guard = prefix + "EVENTS_H";
  std::string text = fmt::format(
      "// {0}\n#ifndef {1}\n#define {1}\n\n#include <stdbool.h>\n#include <stddef.h>\n#include <stdint.h>\n\n"
      "#include \"kelvo/kelvo.h\"\n\n"
      "// Each event is a function and each attribute a struct of its own: {2}Price is made by ({2}Price){{12.5}}.\n"
      "// An optional attribute is a pointer, NULL if the event has none. No range is checked here.\n",
      kNote, guard, prefix);
  for (const Attribute* type : registry.types()) text += "\n" + writeType(*type, prefix);
  for (const Event& event : registry.events) text += "\n" + writeFunction(event, prefix);
  return text + "\n#endif\n";
}

}  // namespace kelvo::registry
