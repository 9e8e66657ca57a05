#include "core/AttributeFlattening.h"

#include <algorithm>
#include <string>
#include <utility>

#include "platform/JSON.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

enum class Kind { text, number, dictionary, array, other };

Kind kindOf(const Value& value) {
  if (value.get<std::string>() != nullptr) return Kind::text;
  if (value.isNumber()) return Kind::number;
  if (value.get<Dictionary>() != nullptr) return Kind::dictionary;
  return value.get<Array>() != nullptr ? Kind::array : Kind::other;
}

std::optional<std::string> asJSON(const Value& value) {
  std::string error;
  auto text = jsonText(value, &error);
  if (!text) KLV_ERROR("{}: error: {}", "getFlatDictionary", error);
  return text;
}

void storeAsJSON(const std::string& key, const Value& value, Dictionary& result) {
  if (auto text = asJSON(value)) result.set(key, *std::move(text));
}

Value textOfNumber(const Value& value) {
  return value.isNumber() ? Value(description(value)) : value;
}

/// Stores a text or a number. If `key` has a value already, the two become an array.
void gather(const std::string& key, const Value& value, Dictionary& result) {
  const Value* present = result.find(key);
  if (present == nullptr) {
    result.set(key, value);
  } else if (const auto* values = present->get<Array>()) {
    Array longer = *values;
    result.set(key, nullptr);  // `longer` is now the only owner of its content, so that it grows in place
    longer.append(value);
    result.set(key, std::move(longer));
  } else {
    result.set(key, Array{textOfNumber(*present), textOfNumber(value)});
  }
}

void handleArray(const std::string& key, const Array& array, Dictionary& result, int depth);

void handleDictionary(const std::string& prefix, const Dictionary& dictionary, Dictionary& result, int depth) {
  if (depth < 1) return storeAsJSON(prefix, dictionary, result);
  for (const auto& [name, value] : dictionary) {
    const std::string key = prefix + "_" + name;
    switch (kindOf(value)) {
      case Kind::dictionary: handleDictionary(key, *value.get<Dictionary>(), result, depth - 1); break;
      case Kind::array: handleArray(key, *value.get<Array>(), result, depth - 1); break;
      case Kind::text:
      case Kind::number: gather(key, value, result); break;
      case Kind::other: break;
    }
  }
}

/// Stores each element as JSON text. Several texts become an array.
void gatherTexts(const std::string& key, const Array& array, Dictionary& result) {
  for (const Value& element : array) {
    if (auto text = asJSON(element)) gather(key, *std::move(text), result);
  }
}

/// Stores a mixed array as JSON text. The rule for the kind of its first element may then overwrite the text.
void stringifyMixed(const std::string& key, const Array& array, Kind kind, Dictionary& result) {
  for (const Value& element : array) {
    if (kindOf(element) != kind) return storeAsJSON(key, array, result);
  }
}

void handleArray(const std::string& key, const Array& array, Dictionary& result, int depth) {
  if (array.empty()) return;
  const Kind kind = kindOf(array[0]);
  if (kind == Kind::other) return;
  if (kind == Kind::dictionary && depth - 1 < 1) return gatherTexts(key, array, result);
  stringifyMixed(key, array, kind, result);
  if (kind == Kind::text || kind == Kind::number) {
    // Kept: a mixed array that begins with a text or a number is stored unchanged.
    result.set(key, array);
    return;
  }
  if (kind == Kind::dictionary) {
    for (const Value& element : array) {
      if (const auto* dictionary = element.get<Dictionary>()) handleDictionary(key, *dictionary, result, depth - 1);
    }
    return;
  }
  Array texts;
  for (const Value& element : array) {
    if (auto text = asJSON(element)) texts.append(*std::move(text));
  }
  result.set(key, std::move(texts));
}

}  // namespace

Dictionary getFlatDictionary(const Dictionary& dictionary, int depth) {
  const auto isFlat = [](const auto& entry) {
    const Kind kind = kindOf(entry.second);
    return kind == Kind::text || kind == Kind::number;
  };
  if (std::all_of(dictionary.begin(), dictionary.end(), isFlat)) return dictionary;  // the copy shares its content
  Dictionary result;
  for (const auto& [key, value] : dictionary) {
    switch (kindOf(value)) {
      case Kind::dictionary: handleDictionary(key, *value.get<Dictionary>(), result, depth - 1); break;
      // Kept: unlike a dictionary, an array at the top level does not lower the depth.
      case Kind::array: handleArray(key, *value.get<Array>(), result, depth); break;
      case Kind::text:
      case Kind::number: result.set(key, value); break;
      case Kind::other: break;
    }
  }
  return result;
}

}  // namespace kelvo
