#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"
#include "util/KLVAnswerLimits.h"

namespace kelvo {

/// Saves and reads the JSON files in the Library directory, and the hashes in the user defaults. Thread-safe.
namespace KLVUtilities {

/// Replaces the file Library/`path` atomically with `data`. Returns false if either argument is nullopt or the write
/// fails.
bool saveConfig(const std::optional<std::string>& data, const std::optional<std::string>& path);
/// Returns the array or dictionary in Library/`path`. Returns nullopt for a nullopt `path`; returns nullopt and logs an
/// ERROR line if the file cannot be read or holds anything else. A file beyond `limits` costs a WARN line and is not
/// read.
std::optional<Value> readConfigAtRelativePath(const std::optional<std::string>& path,
                                              const KLVAnswerLimits& limits = kStartUpLimits);
/// As above, but `path` is absolute.
std::optional<Value> readConfig(const std::string& path, const KLVAnswerLimits& limits = kStartUpLimits);

/// Saves the service's last known hash of `module`, such as "rta" or "sdk_config", and flushes the user defaults.
void saveHash(const std::string& hash, std::string_view module);
/// Returns the saved hash of `module`, nullopt if there is none.
std::optional<std::string> getHashForModule(std::string_view module);

}  // namespace KLVUtilities
}  // namespace kelvo
