#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kelvo/Value.h"

namespace kelvo::collector {

class Database;
struct Place;

/// The types that an analyst tells apart. Sets of them are stored in the column "types", so the bits must not change.
enum TypeBit : unsigned {
  kNoType = 0,  // null, which fits every type
  kText = 1U << 0U,
  kNumber = 1U << 1U,
  kBoolean = 1U << 2U,
  kList = 1U << 3U,
  kDictionary = 1U << 4U
};
inline constexpr TypeBit kAllTypes[] = {kText, kNumber, kBoolean, kList, kDictionary};

[[nodiscard]] TypeBit typeOf(const Value& value);
/// Returns "text", "number", "boolean", "list" or "dictionary".
[[nodiscard]] const char* nameOfType(unsigned type);

[[nodiscard]] constexpr bool hasSeveralTypes(unsigned types) {
  return (types & (types - 1)) != 0;
}

/// Returns true for an attribute that the library itself adds to an event ("klv_lt_count", "klv_lt_count_slot"). Such
/// attributes are never a problem.
[[nodiscard]] constexpr bool isOfLibrary(std::string_view attribute) {
  return attribute.substr(0, 4) == "klv_";
}

/// An attribute of the events of one kind and name.
struct AttributeOf {
  const std::string& kind;
  const std::string& name;
  const std::string& attribute;
};

/// Updates the problem of an attribute that has values of several types. The types other than the most frequent one are
/// at fault, whichever came first. Updates the session of the chunk at `place`, and all sessions if another type became
/// the most frequent one. Thread: inside a transaction of `database`.
void reportTypes(Database& database, const AttributeOf& of, const Place& place);

/// Returns the types of an attribute in all sessions, the rarest first, each with its "count" and one "event" with its
/// "value".
[[nodiscard]] Array typesOf(Database& database, const std::string& name, const std::string& attribute);

}  // namespace kelvo::collector
