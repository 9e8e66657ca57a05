#pragma once

#include <optional>
#include <string>

namespace kelvo {

/// The switch of this machine: its user or its administrator can forbid every program to collect anything.
namespace SwitchedOff {

/// The administrator's switch: Kelvo is off while a file with this path exists, whatever its content.
inline constexpr const char* kFile = "/etc/kelvo/disabled";

/// Returns why Kelvo is switched off on this machine, as one sentence without a full stop; nullopt if it is not. The
/// reason is the variable `DO_NOT_TRACK` with any value but empty and "0", or the administrator's file. The first call
/// decides for the whole process. Thread-safe.
const std::optional<std::string>& reason();

/// Looks for the administrator's file at `path` instead. For tests: only before the first call of `reason`.
void setFile(std::string path);

}  // namespace SwitchedOff
}  // namespace kelvo
