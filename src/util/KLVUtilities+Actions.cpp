#include "util/KLVUtilities+Actions.h"

namespace kelvo {
namespace {

constexpr std::string_view kId = "_id";
constexpr std::string_view kPID = "pid";

/// Removes the part up to and including the first `separator` from `text`, and returns it without the separator.
std::string_view takePiece(std::string_view& text, char separator) {
  const auto end = text.find(separator);
  const std::string_view piece = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return piece;
}

bool hasPID(const Value& action, std::string_view pid) {
  const auto* members = action.get<Dictionary>();
  return members != nullptr && (*members)[kPID] == Value(pid);
}

}  // namespace

Dictionary KLVUtilities::getPIDMIDDictFromString(std::string_view text) {
  Dictionary pairs;
  while (!text.empty()) {
    std::string_view pair = takePiece(text, ',');
    if (pair.find('_') == std::string_view::npos) continue;
    const std::string_view pid = takePiece(pair, '_');
    pairs.set(pid, takePiece(pair, '_'));
  }
  return pairs;
}

std::optional<Dictionary> KLVUtilities::iDKeyDictionaryForConfigs(const Array& configs) {
  Dictionary byId;
  for (const Value& action : configs) {
    const auto* members = action.get<Dictionary>();
    const auto* id = members != nullptr ? (*members)[kId].get<std::string>() : nullptr;
    if (id != nullptr) byId.set(*id, action);
  }
  return byId.empty() ? std::nullopt : std::optional(byId);
}

bool KLVUtilities::doesConfig(const Dictionary& config, std::string_view containsPID) {
  for (const auto& [id, action] : config) {
    if (hasPID(action, containsPID)) return true;
  }
  return false;
}

Dictionary KLVUtilities::dictionaryByRemovingEntryWithPID(std::string_view pid, const Dictionary& fromConfig) {
  Dictionary rest;
  for (const auto& [id, action] : fromConfig) {
    if (!hasPID(action, pid)) rest.set(id, action);
  }
  return rest;
}

std::vector<std::string> KLVUtilities::getAllPIDsInConfig(const Dictionary& config) {
  std::vector<std::string> pids;
  for (const auto& [id, action] : config) {
    const auto* members = action.get<Dictionary>();
    const auto* pid = members != nullptr ? (*members)[kPID].get<std::string>() : nullptr;
    if (pid != nullptr) pids.push_back(*pid);
  }
  return pids;
}

}  // namespace kelvo
