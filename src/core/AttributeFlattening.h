#pragma once

#include "kelvo/Value.h"

namespace kelvo {

/// Returns a nested attribute dictionary as one level of keys. Texts and numbers stay. Containers nested deeper than
/// `depth` become JSON text under their key. The keys of flattened dictionaries are joined by "_". Dates, bytes and
/// nulls are dropped. Depth 1 keeps one level, depth 2 flattens one more:
///
///     {a: 1, b: {c: x, d: {e: 2}}, f: [1, 2]}
///     depth 1: {a: 1, b: "{\"c\":\"x\",\"d\":{\"e\":2}}", f: [1, 2]}
///     depth 2: {a: 1, b_c: x, b_d: "{\"e\":2}", f: [1, 2]}
///
/// Several values under one composed key become an array. A number among the first two becomes text. Thread-safe.
Dictionary getFlatDictionary(const Dictionary& dictionary, int depth);

/// Returns the attributes of a host call: at depth 2 if the call flattens, else at depth 1.
inline Dictionary flattened(const Dictionary& info, bool shouldFlatten) {
  return getFlatDictionary(info, shouldFlatten ? 2 : 1);
}

}  // namespace kelvo
