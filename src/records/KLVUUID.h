#pragma once

#include <string>

namespace kelvo {

/// Returns a new random UUID in upper case.
std::string randomUUIDString();

}  // namespace kelvo
