#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kelvo/Value.h"

namespace kelvo {

/// Facts about the device and the installation.
namespace KLVUtilities {

/// When the Documents directory was created, in milliseconds since 1970; 0 when that cannot be read.
std::int64_t installationDate();
std::string deviceName();
/// True at the first call after installation only: it leaves a footprint file.
bool isFirstSession();
/// Upper-case hexadecimal, two digits a byte.
std::optional<std::string> stringWithDeviceToken(const std::optional<Data>& token);

}  // namespace KLVUtilities
}  // namespace kelvo
