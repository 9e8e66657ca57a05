#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kelvo-service/Service.h"

// The erasure of a device. Thread: inside a transaction of the database.

namespace kelvo::collector {

class Database;
using service::Device;
using service::Erasure;

/// Returns the HMAC of `text` under the store's own random key, as hexadecimal digits.
[[nodiscard]] std::string keyedHash(Database& database, std::string_view text);

/// Keeps a hash of `secret` with a known device that has none yet.
void keepSecret(Database& database, const Device& device, const std::string& secret);
/// Returns whether a request with `secret` may erase the device: `done` if it may. Compares in constant time.
[[nodiscard]] Erasure rightToErase(Database& database, const Device& device, const std::string& secret);

/// Deletes the device's requests, chunks, sessions, events, problems and attributes, and keeps a keyed hash of its id.
/// The totals are counted anew from the remaining sessions, except the numbers of sessions, chunks and events. Its
/// earlier DELETE requests stay without the id. The time grows with the store. The deleted bytes are gone only after
/// `Database::shrink`: see `mustShrink`.
void eraseDevice(Database& database, const Device& device, std::int64_t time);
/// Returns true if an erasure was committed and the store was not shrunk since.
[[nodiscard]] bool mustShrink(Database& database);

/// Returns the name that listings show instead of the device's id, empty if the device is not erased.
[[nodiscard]] std::string nameOfErased(Database& database, const Device& device);
/// Returns `text` with `name` in place of each `id`.
[[nodiscard]] std::string withoutId(std::string text, const std::string& id, const std::string& name);

}  // namespace kelvo::collector
