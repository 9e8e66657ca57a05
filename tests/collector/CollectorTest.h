#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <utility>

#include "platform/JSON.h"
#include "support/TestHome.h"

namespace kelvo::test {

/// The result of a request by the curl program, a client that shares no code with the server under test.
struct CurlResult {
  int exitCode = -1;  ///< 0, or curl's number of the transport error
  int status = 0;
  std::string body;

  [[nodiscard]] Dictionary json() const {
    return parseJSON(body).value_or(Value()).asDictionary().value_or(Dictionary{});
  }
};

/// Runs curl with `arguments`, which are shell syntax.
inline CurlResult curl(const std::string& arguments) {
  CurlResult result;
  FILE* pipe = popen(("curl --silent --noproxy '*' --write-out '\\n%{http_code}' " + arguments).c_str(), "r");
  for (int byte; pipe != nullptr && (byte = fgetc(pipe)) != EOF;) result.body += static_cast<char>(byte);
  const int ended = pipe != nullptr ? pclose(pipe) : -1;
  result.exitCode = WIFEXITED(ended) ? WEXITSTATUS(ended) : -1;
  if (const auto end = result.body.rfind('\n'); end != std::string::npos) {
    result.status = std::atoi(result.body.c_str() + end + 1);
    result.body.resize(end);
  }
  return result;
}

inline CurlResult post(const std::string& url, const std::string& body, const std::string& moreArguments = {}) {
  writeFileForTest(home() + "/body", body);
  return curl(moreArguments + " -H 'Content-Type: application/json' --data-binary @'" + home() + "/body' '" + url +
              "'");
}

/// Makes a certificate for "localhost" and its key in the test's home. Returns their paths.
inline std::pair<std::string, std::string> makeCertificate() {
  const std::string certificate = home() + "/cert.pem", key = home() + "/key.pem";
  const std::string command = "openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=localhost -keyout " + key +
                              " -out " + certificate + " 2>/dev/null";
  EXPECT_EQ(std::system(command.c_str()), 0);
  return {certificate, key};
}

/// The JSON of a chunk with an event of every kind.
inline const std::string kSampleChunk = R"json({
  "sdk_info": {"sdk_version": 288.0, "config_id": "undefined", "tick_interval": 1, "chunk_retry_window": 1,
    "sdk_start_time": 1700000000000},
  "session_info": {"id": "1700000000123-D1", "launch_time": 1700000000123,
    "launch_time_string": "2023-11-14T22:13:20.123+0000", "launch_type": "normal", "duration": 12.5,
    "startup_time": 0, "process_name": "Undefined", "is_first_session": true, "is_background": false,
    "is_fatal": false, "additional_info": {"plan": "gold"}},
  "app_info": {"app_name": "Shop", "app_version": "2.4(118)", "bundle_id": "com.shop", "app_mode": "Unknown",
    "installation_time": 1690000000000},
  "device_info": {"id": "D1", "hardware_model": "x86_64", "os_version": "12", "platform": "ios",
    "dimensions": {"width": 0, "height": 0.5}},
  "chunk_meta": {"id": "1700000000123-D1_3", "number": 3, "reporting_times": [1700000030000]},
  "chunk_details": {"user_attributes": {"age": 7}, "session_attributes": {}, "chunk_attributes": {},
    "agg_events": [{"name": "Scroll", "count": 4, "attributes": {"dir": [["up", 3], [null, 1]]}}],
    "system_events": [{"name": "FOREGROUND", "time": 0}],
    "navigation_events": [{"navigation_id": "Home", "name": "Home", "duration": 3.25, "transition_time": 2}],
    "app_events": [{"name": "Open", "time": 1}, {"name": "Buy", "time": 5, "additional_info": {"price": 3}}],
    "user_events": [{"id": "Tap", "time": 6, "type": "UserInteraction", "x": 1}],
    "incidents": [{"incident_id": "I1", "incident_type": "KLVCustomError", "time_of_occurrence": 9,
      "incident_specific_details": {"error_message": "no"}}]}})json";

/// Returns the JSON of an application event.
inline std::string event(const std::string& name, const std::string& info = "{}") {
  return R"({"name": ")" + name + R"(", "time": 1, "additional_info": )" + info + "}";
}

/// Describes a chunk by the parts that matter to a test. The texts are JSON; `app` is a list without its brackets.
struct ChunkOf {
  int number = 1;
  std::string app = {};
  std::string session = "1700000000000-D1";
  std::string navigation = "[]";
  std::string system = "[]";
  std::string aggregates = "[]";
  std::string user = "{}";
  double duration = 1;

  /// Returns the sample chunk with these parts.
  [[nodiscard]] std::string text() const {
    Dictionary chunk = *parseJSON(kSampleChunk)->get<Dictionary>();
    const auto change = [&chunk](const char* part, const Dictionary& changes) {
      Dictionary members = *chunk[part].get<Dictionary>();
      for (const auto& [name, value] : changes) members.set(name, value);
      chunk.set(part, members);
    };
    change("session_info", {{"id", session}, {"duration", duration}});
    change("chunk_meta", {{"id", session + "_" + std::to_string(number)}, {"number", number}});
    change("chunk_details", {{"app_events", *parseJSON("[" + app + "]")},
                             {"navigation_events", *parseJSON(navigation)},
                             {"system_events", *parseJSON(system)},
                             {"agg_events", *parseJSON(aggregates)},
                             {"user_attributes", *parseJSON(user)},
                             {"user_events", Array{}},
                             {"incidents", Array{}}});
    return *jsonText(chunk);
  }
};

/// Returns the member at the end of a path of names and indices, null if there is none.
inline Value in(const Value& value, std::initializer_list<std::string> path) {
  Value found = value;
  for (const std::string& step : path) {
    Value next;
    if (const auto object = found.asDictionary()) next = (*object)[step];
    const auto* list = found.get<Array>();
    const auto at = static_cast<std::size_t>(std::atoi(step.c_str()));
    if (list != nullptr && at < list->size()) next = (*list)[at];
    found = next;
  }
  return found;
}

}  // namespace kelvo::test
