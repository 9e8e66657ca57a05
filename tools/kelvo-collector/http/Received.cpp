#include "kelvo-collector/http/Received.h"

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <chrono>

#include "kelvo-service/Parameters.h"
#include "platform/JSON.h"

namespace kelvo::collector {
namespace {

using service::applicationOf;
using service::Parameters;
using std::chrono::milliseconds;

/// Returns the headers as sent, without those that the HTTP library adds about the connection.
Dictionary headersOf(const httplib::Request& request) {
  Dictionary headers;
  for (const auto& [name, value] : request.headers) {
    if (name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT") continue;
    std::string lower = name;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    headers.set(lower, value);
  }
  return headers;
}

/// Returns the device that the query or the body of a request names.
Device deviceOf(const service::Request& request) {
  Device device{applicationOf(request), Parameters(request.parameters).text("userId")};
  if (!device.id.empty() || request.body.empty()) return device;
  const Dictionary body = parseJSON(request.body).value_or(Value()).asDictionary().value_or(Dictionary());
  const auto* info = body["device_info"].get<Dictionary>();
  if (info != nullptr) device.id = (*info)["id"].asText().value_or("");
  return device;
}

}  // namespace

ReceivedRequest received(const httplib::Request& request, const service::Request& decoded) {
  ReceivedRequest result;
  result.time = std::chrono::duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
  result.method = request.method;
  const auto mark = request.target.find('?');
  result.path = request.target.substr(0, mark);
  if (mark != std::string::npos) result.query = request.target.substr(mark + 1);
  result.headers = headersOf(request);
  result.body = decoded.body;
  result.device = deviceOf(decoded);
  return result;
}

}  // namespace kelvo::collector
