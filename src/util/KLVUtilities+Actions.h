#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo/Value.h"

namespace kelvo {

/// Works on the service's actions. An action belongs to a campaign (its "pid"); a campaign has a revision (its MID).
///
/// A `config` below maps each action's "_id" to the action. Thread-safe.
namespace KLVUtilities {

/// Returns PID to MID for a text such as "P1_3,P7_1". Skips a piece without "_". If a PID is repeated, the last wins.
Dictionary getPIDMIDDictFromString(std::string_view text);
/// Returns a `config` of the actions in `configs`, without those that have no "_id" text; nullopt if none remains.
std::optional<Dictionary> iDKeyDictionaryForConfigs(const Array& configs);
/// Returns true if an action of `config` belongs to the campaign `containsPID`.
bool doesConfig(const Dictionary& config, std::string_view containsPID);
/// Returns `fromConfig` without the actions of the campaign `pid`.
Dictionary dictionaryByRemovingEntryWithPID(std::string_view pid, const Dictionary& fromConfig);
/// Returns the campaign of every action that names one, in the order of `config`. A campaign may be repeated.
std::vector<std::string> getAllPIDsInConfig(const Dictionary& config);

}  // namespace KLVUtilities
}  // namespace kelvo
