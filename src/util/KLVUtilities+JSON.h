#pragma once

#include <optional>
#include <string>

#include "kelvo/Value.h"
#include "util/KLVAnswerLimits.h"

namespace kelvo {

/// Converts values to JSON text and back.
///
/// Every function returns nullopt and logs "JSON Error: ..." at error level if it fails, or if its argument is nullopt.
/// The three parsers accept any kind of JSON value, whatever their names say. Thread-safe.
namespace KLVUtilities {

std::optional<std::string> jsonDataFromNSDictionary(const std::optional<Dictionary>& dictionary);
std::optional<std::string> jsonStringFromNSDictionary(const std::optional<Dictionary>& dictionary);
std::optional<std::string> jsonStringFromNSArray(const std::optional<Array>& array);
/// Fails also if `data` has more values than `limits` allow.
std::optional<Value> dictionaryFromNSData(const std::optional<std::string>& data,
                                          const KLVAnswerLimits& limits = kStartUpLimits);
std::optional<Value> dictionaryFromJsonString(const std::optional<std::string>& text);
std::optional<Value> arrayFromJsonString(const std::optional<std::string>& text);

}  // namespace KLVUtilities
}  // namespace kelvo
