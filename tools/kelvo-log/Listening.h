#pragma once

#include <chrono>
#include <string>

namespace kelvo::log {

/// From now on, each event of `type` ("App"), or the exact event of `key` ("4___Purchase"), is printed as one JSON line
/// on standard output when the bus delivers it; once, even when asked for twice. False for a type that there is none
/// of.
[[nodiscard]] bool listenForType(const std::string& type);
void listenForIdentifier(const std::string& key);

/// Brings the saved actions of `type` in step with the service and prints, as one JSON line, whether the callback came
/// within `limit`.
void sync(const std::string& type, const std::string& version, std::chrono::duration<double> limit);

}  // namespace kelvo::log
