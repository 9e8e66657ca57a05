#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo {

/// Returns facts about the device and the installation.
namespace KLVUtilities {

/// Returns the creation time of the Documents directory in milliseconds since 1970; its modification time on a file
/// system that keeps no creation time; 0 if neither can be read.
std::int64_t installationDate();
/// Returns the machine's hardware name, such as "x86_64".
std::string deviceName();
/// Returns true for the first call after installation only: the call leaves a footprint file. Not thread-safe.
bool isFirstSession();
/// Returns the token in upper-case hexadecimal, two digits per byte; nullopt for nullopt.
std::optional<std::string> stringWithDeviceToken(const std::optional<Data>& token);

}  // namespace KLVUtilities
}  // namespace kelvo
