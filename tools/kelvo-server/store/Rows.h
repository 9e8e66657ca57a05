#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo-server/db/Query.h"

namespace kelvo::server {

struct EventRow {
  const char* kind = nullptr;
  std::string name;                     ///< at most `kLongestName` bytes
  std::optional<std::string> fullName;  ///< if it is longer
  std::int32_t sinceLaunch = 0;         ///< seconds
  db::Time time;
  std::optional<std::int32_t> seconds;  ///< that a screen was shown
  std::string attributes;               ///< JSON
};

/// A total of a session: of an event if `attribute` is empty, else of one value of an attribute.
struct AggregateRow {
  std::string name;
  std::string attribute;
  std::string value;
  std::int64_t count = 0;
};

struct DeviceRow {
  std::string app;
  std::string device;
  std::optional<std::string> secretHash;
  std::optional<std::string> userId;
  std::string userAttributes;  ///< JSON
  std::string appVersion;
  std::string systemVersion;
  std::string hardwareModel;
  double width = 0;   ///< points
  double height = 0;  ///< points
  std::optional<std::string> token;
  std::optional<db::Time> installed;
  /// Orders the reports of a device by its own clock. The epoch marks a report that was just made.
  db::Time reported = db::Time::epoch();
};

struct Chunk {
  std::string session;
  std::int32_t number = 0;
  std::string fingerprint;  ///< of the events
  std::string attributes;   ///< JSON
  DeviceRow device;         ///< with the application

  db::Time started;
  double seconds = 0;  ///< length of the session so far
  bool isFirst = false;
  bool isFatal = false;
  std::string launchType;
  std::string libraryVersion;
  std::string sessionAttributes;  ///< JSON

  std::vector<EventRow> events;
  std::vector<AggregateRow> aggregates;
  std::string body;  ///< as received, but with U+FFFD for U+0000
};

/// A chunk, or the reason why the body is none, with the body as received.
struct DecodedChunk {
  std::optional<Chunk> chunk = {};
  std::string fault = {};
  std::string body = {};
};

/// The most values in a body, containers included. It bounds the memory of a decoded body to about 100 bytes each.
inline constexpr std::size_t kMostValues = 4'000'000;

/// The longest name, in bytes, that an index takes together with an application's id.
inline constexpr std::size_t kLongestName = 2000;
/// The longest id or version, in bytes: each event of a chunk repeats them.
inline constexpr std::size_t kLongestId = 500;
/// The most bytes that the ids of all events of a chunk may take.
inline constexpr std::size_t kMostIdBytes = 256U << 20U;

/// Returns `json` with U+FFFD in place of each escaped U+0000, which the database does not store.
[[nodiscard]] std::string withoutZeros(std::string json);
// `secret` is the header X-Kelvo-Erase, empty if the device sent none.
/// Decodes the body of a chunk. Takes time in proportion to its size. Thread: any.
[[nodiscard]] DecodedChunk decodeChunk(const std::string& app, std::string body, std::string_view secret = {});
/// Decodes the body of a user-info request, which must be valid.
[[nodiscard]] DeviceRow decodeUserInfo(const std::string& app, std::string body, std::string_view secret);
/// Returns the SHA-256 hash of `bytes` in hexadecimal digits.
[[nodiscard]] std::string sha256(std::string_view bytes);

}  // namespace kelvo::server
