#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo/Value.h"

namespace kelvo::service {

class ServiceState;

/// A client's request, decoded.
struct Request {
  std::string method;
  std::string path;
  std::multimap<std::string, std::string> parameters;  ///< parameters of the URL's query
  std::string body;
  std::string eraseSecret = {};  ///< the header X-Kelvo-Erase, empty if there is none
};

/// A device of an application. The same id in another application is another device.
struct Device {
  std::string application;
  std::string id;
};

/// The content of a request that the service accepted: a chunk, the attributes of a user, an erasure, or nothing.
struct Accepted {
  std::optional<std::string> chunkOf = {};  ///< application that sent a chunk
  std::optional<std::string> userOf = {};   ///< application that sent a user's attributes
  std::optional<Device> erasureOf = {};     ///< device that asks for its erasure: see `replyToErasure`
};

struct Reply {
  int status = 200;
  Dictionary body;
  std::string allow;  ///< on status 405: the methods that the path allows
  Accepted accepted;  ///< the parts of the request that the store must keep
};

/// The input of an answer: the request and the service's data.
struct RequestContext {
  const Request& request;
  const ServiceState& state;
  std::string application;  ///< the application's id in the path

  /// Returns a parameter of the query, empty if there is none.
  [[nodiscard]] std::string parameter(const char* name) const;
};

/// Returns the service's answer, nullopt if the service has no such path. Stores nothing; the caller stores
/// `Reply::accepted`. Thread-safe.
[[nodiscard]] std::optional<Reply> reply(const Request& request, const ServiceState& state);

/// The outcome of a request to erase a device.
enum class Erasure : std::uint8_t {
  done,
  unknownDevice,  ///< nothing is stored, or the device is erased already
  wrongSecret,    ///< the request has no secret, or not the first one that the device sent
  noSecret,       ///< the device never sent a secret, so nobody can prove to be the device
};
/// Returns the answer to the request. Its store decides about the outcome, so `reply` cannot give this answer.
[[nodiscard]] Reply replyToErasure(Erasure outcome);

/// Returns true for the request that uploads a chunk.
[[nodiscard]] bool isChunkUpload(const Request& request);

/// Returns the application that the path or the parameter "appId" of any request names, empty if neither does.
[[nodiscard]] std::string applicationOf(const Request& request);

[[nodiscard]] bool isUTF8(const std::string& text);
[[nodiscard]] Reply refusal(int status, std::string reason);
[[nodiscard]] Reply success(Dictionary body);

/// Returns "METHOD /path" for each path of the service. The answer to an unknown path lists them.
[[nodiscard]] std::vector<std::string> servicePaths();

}  // namespace kelvo::service
