#pragma once

#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo {

/// Small files in the Library directory, and hashes in the user defaults.
namespace KLVUtilities {

/// Replaces Library/`path`; false without a path, without data, or when the write fails.
bool saveConfig(const std::optional<std::string>& data, const std::optional<std::string>& path);
std::optional<Value> readConfigAtRelativePath(const std::optional<std::string>& path);
/// `path` is a full path.
std::optional<Value> readConfig(const std::string& path);

/// Kept in the user defaults and flushed at once.
void saveHash(const std::string& hash, const std::string& module);
std::optional<std::string> getHashForModule(const std::string& module);

}  // namespace KLVUtilities
}  // namespace kelvo
