#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo/Value.h"

namespace kelvo {

/// Actions of the service. Each belongs to a campaign (its "pid"), and each campaign has a revision (its MID).
namespace KLVUtilities {

/// PID to MID of a text such as "P1_3,P7_1"; a piece without "_" is skipped, of equal PIDs the last one counts.
Dictionary getPIDMIDDictFromString(std::string_view text);
/// Each action's "_id" to the action; nullopt for none. What has no "_id" is left out.
std::optional<Dictionary> iDKeyDictionaryForConfigs(const Array& configs);
bool doesConfig(const Dictionary& config, std::string_view containsPID);
Dictionary dictionaryByRemovingEntryWithPID(std::string_view pid, const Dictionary& fromConfig);
/// In order, repeated ones included.
std::vector<std::string> getAllPIDsInConfig(const Dictionary& config);

}  // namespace KLVUtilities
}  // namespace kelvo
