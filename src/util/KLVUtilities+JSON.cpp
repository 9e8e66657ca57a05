#include "util/KLVUtilities+JSON.h"

#include <limits>

#include "platform/JSON.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

template <class Container>
std::optional<std::string> jsonOf(const std::optional<Container>& container) {
  std::string error = "there is nothing to write";
  auto text = container ? jsonText(*container, &error) : std::nullopt;
  if (!text) KLV_ERROR("JSON Error: {}", error);
  return text;
}

std::optional<Value> valueOf(const std::optional<std::string>& text,
                             std::size_t mostValues = std::numeric_limits<std::size_t>::max()) {
  std::string error = "there is nothing to parse";
  auto value = text ? parseJSON(*text, &error, mostValues) : std::nullopt;
  if (!value) KLV_ERROR("JSON Error: {}", error);
  return value;
}

}  // namespace

std::optional<std::string> KLVUtilities::jsonDataFromNSDictionary(const std::optional<Dictionary>& dictionary) {
  return jsonOf(dictionary);
}
std::optional<std::string> KLVUtilities::jsonStringFromNSDictionary(const std::optional<Dictionary>& dictionary) {
  return jsonOf(dictionary);
}
std::optional<std::string> KLVUtilities::jsonStringFromNSArray(const std::optional<Array>& array) {
  return jsonOf(array);
}
std::optional<Value> KLVUtilities::dictionaryFromNSData(const std::optional<std::string>& data,
                                                        const KLVAnswerLimits& limits) {
  return valueOf(data, limits.values);
}
std::optional<Value> KLVUtilities::dictionaryFromJsonString(const std::optional<std::string>& text) {
  return valueOf(text);
}
std::optional<Value> KLVUtilities::arrayFromJsonString(const std::optional<std::string>& text) {
  return valueOf(text);
}

}  // namespace kelvo
