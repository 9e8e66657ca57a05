#pragma once

#include "kelvo/Value.h"

namespace kelvo {

/// One level of keys from a nested attribute dictionary: texts and numbers stay, what nests deeper than `depth` becomes
/// JSON text under its key, and keys of flattened dictionaries are joined by "_". Dates, bytes and nulls are dropped.
/// Depth 1 keeps one level, depth 2 flattens one more:
///
///     {a: 1, b: {c: x, d: {e: 2}}, f: [1, 2]}
///     depth 1: {a: 1, b: "{\"c\":\"x\",\"d\":{\"e\":2}}", f: [1, 2]}
///     depth 2: {a: 1, b_c: x, b_d: "{\"e\":2}", f: [1, 2]}
///
/// Values that meet under one composed key gather in an array, single numbers among them as text.
Dictionary getFlatDictionary(const Dictionary& dictionary, int depth);

}  // namespace kelvo
