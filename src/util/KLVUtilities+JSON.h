#pragma once

#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo {

/// JSON text to values and back. nullopt stands for an absent object, in and out. A failure is logged at error level as
/// "JSON Error: ..." and returns nullopt. The parsers return any kind of value, whatever their names say.
namespace KLVUtilities {

std::optional<std::string> jsonDataFromNSDictionary(const std::optional<Dictionary>& dictionary);
std::optional<std::string> jsonStringFromNSDictionary(const std::optional<Dictionary>& dictionary);
std::optional<std::string> jsonStringFromNSArray(const std::optional<Array>& array);
std::optional<Value> dictionaryFromNSData(const std::optional<std::string>& data);
std::optional<Value> dictionaryFromJsonString(const std::optional<std::string>& text);
std::optional<Value> arrayFromJsonString(const std::optional<std::string>& text);

}  // namespace KLVUtilities
}  // namespace kelvo
