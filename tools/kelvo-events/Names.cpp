#include "kelvo-events/Names.h"

#include <algorithm>
#include <iterator>
#include <vector>

namespace kelvo::registry {
namespace {

// Words of C, C++ and JavaScript, names of functions that each generated file may use, and macros that compilers and
// toolkits define in lower case.
constexpr std::string_view kTaken[] = {
    "alignas",  "alignof",   "and",        "arguments", "asm",       "assert",    "atomic",   "attributes", "auto",
    "await",    "bitand",    "bitor",      "bool",      "break",     "case",      "catch",    "char",       "class",
    "compl",    "concept",   "const",      "consteval", "constexpr", "constinit", "continue", "debugger",   "decltype",
    "default",  "delete",    "do",         "double",    "else",      "emit",      "enum",     "errno",      "eval",
    "explicit", "export",    "extends",    "extern",    "false",     "finally",   "float",    "for",        "foreach",
    "forever",  "friend",    "function",   "goto",      "i386",      "id",        "if",       "implements", "import",
    "in",       "inline",    "instanceof", "int",       "interface", "kelvo",     "let",      "linux",      "long",
    "mutable",  "namespace", "new",        "noexcept",  "not",       "null",      "nullptr",  "operator",   "or",
    "package",  "private",   "protected",  "public",    "register",  "requires",  "restrict", "return",     "short",
    "signals",  "signed",    "sizeof",     "slots",     "static",    "std",       "stderr",   "stdin",      "stdout",
    "struct",   "super",     "switch",     "template",  "textOf",    "this",      "throw",    "true",       "try",
    "typedef",  "typeid",    "typename",   "typeof",    "undefined", "union",     "unix",     "unsigned",   "using",
    "var",      "virtual",   "void",       "volatile",  "while",     "with",      "xor",      "yield"};

bool isUpper(char c) {
  return c >= 'A' && c <= 'Z';
}

bool isLower(char c) {
  return c >= 'a' && c <= 'z';
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

/// Returns the words of a name in lower case. A word ends at a character that is no letter or digit, before an
/// upper-case letter after another one, and before the last letter of capitals that a lower-case letter follows:
/// "HTTPError".
std::vector<std::string> wordsOf(std::string_view name) {
  std::vector<std::string> words;
  bool isNew = true;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    if (!isUpper(c) && !isLower(c) && !isDigit(c)) {
      isNew = true;
      continue;
    }
    const bool endsCapitals = i > 0 && isUpper(name[i - 1]) && i + 1 < name.size() && isLower(name[i + 1]);
    if (isNew || (isUpper(c) && (!isUpper(name[i - 1]) || endsCapitals))) words.emplace_back();
    words.back() += lowerCased(name.substr(i, 1));
    isNew = false;
  }
  return words;
}

std::string joined(std::string_view name, bool beginsUpper) {
  std::string text;
  for (const std::string& word : wordsOf(name)) {
    const bool capital = (beginsUpper || !text.empty()) && isLower(word[0]);
    text += capital ? static_cast<char>(word[0] - 'a' + 'A') : word[0];
    text += word.substr(1);
  }
  if (!text.empty() && isDigit(text[0])) text.insert(0, beginsUpper ? "N" : "n");
  return text;
}

}  // namespace

std::string lowerCased(std::string_view name) {
  std::string text(name);
  for (char& c : text) c = isUpper(c) ? static_cast<char>(c - 'A' + 'a') : c;
  return text;
}

std::string lowerCamel(std::string_view name) {
  std::string text = joined(name, false);
  if (std::find(std::begin(kTaken), std::end(kTaken), text) != std::end(kTaken)) text += '_';
  return text;
}

std::string upperCamel(std::string_view name) {
  return joined(name, true);
}

bool isNamespace(std::string_view name) {
  while (true) {
    const std::size_t end = name.find("::");
    const std::string_view part = name.substr(0, end);
    const auto isPart = [](char c) { return isUpper(c) || isLower(c) || isDigit(c) || c == '_'; };
    const bool isReserved = std::find(std::begin(kTaken), std::end(kTaken), part) != std::end(kTaken);
    if (part.empty() || isDigit(part[0]) || isReserved || !std::all_of(part.begin(), part.end(), isPart)) return false;
    if (end == std::string_view::npos) return true;
    name.remove_prefix(end + 2);
  }
}

}  // namespace kelvo::registry
