#pragma once

#include <string>

namespace kelvo {

/// A fresh random UUID, upper-case.
std::string randomUUIDString();

}  // namespace kelvo
