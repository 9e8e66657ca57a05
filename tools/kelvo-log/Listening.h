#pragma once

#include <chrono>
#include <string>

namespace kelvo::log {

/// Prints each later event of `type` ("App") on standard output, as one line of JSON. An event is printed once, even if
/// several calls ask for it. Returns false if there is no such type.
[[nodiscard]] bool listenForType(const std::string& type);
/// As `listenForType`, for events with this key only: type number, "___" and name, such as "4___Purchase".
void listenForIdentifier(const std::string& key);

/// Updates the saved actions of `type` from the service. Prints one line of JSON: "came" is true if the library called
/// back within `limit`. Blocks until then.
void sync(const std::string& type, const std::string& version, std::chrono::duration<double> limit);

}  // namespace kelvo::log
