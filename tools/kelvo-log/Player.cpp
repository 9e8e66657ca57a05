#include "kelvo-log/Player.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <thread>
#include <vector>

#include "kelvo-log/Homes.h"
#include "kelvo-log/Listening.h"
#include "kelvo-log/Waiting.h"
#include "kelvo/KelvoSDK.h"
#include "platform/JSON.h"

namespace kelvo::log {
namespace {

/// Typed access to the members of a line. Throws `BadLine` for a member of a wrong type.
class Members {
 public:
  explicit Members(Dictionary members) : members_(std::move(members)) {}

  [[nodiscard]] OptionalText text(std::string_view name) const {
    return get<std::string, OptionalText>(name, "a text");
  }
  [[nodiscard]] OptionalDictionary info() const { return get<Dictionary, OptionalDictionary>("info", "an object"); }
  [[nodiscard]] bool has(std::string_view name) const { return !members_[name].isNull(); }

  /// Throws `BadLine` if there is a member other than `known` and "call", and if "name" is known but missing or null.
  void check(const std::vector<std::string_view>& known) const {
    for (const auto& member : members_) {
      const std::string& name = member.first;
      if (name != "call" && std::find(known.begin(), known.end(), name) == known.end()) {
        throw BadLine("unknown member \"" + name + "\"");
      }
    }
    const bool isNamed = std::find(known.begin(), known.end(), kName) != known.end();
    if (isNamed && !has(kName)) throw BadLine("\"name\" is missing or null");
  }

  /// Returns a required text.
  [[nodiscard]] std::string required(std::string_view name) const {
    const auto given = text(name);
    if (!given) throw bad(name, "a text");
    return *given;
  }

  [[nodiscard]] bool flag(std::string_view name) const {
    if (has(name) && members_[name].get<bool>() == nullptr) throw bad(name, "true or false");
    return members_[name].asBool();
  }

  [[nodiscard]] std::chrono::duration<double> seconds() const {
    const Value& value = members_["seconds"];
    if (!value.isNumber() || value.get<bool>() != nullptr || value.asDouble() < 0)
      throw bad("seconds", "a number of 0 or more");
    return std::chrono::duration<double>(value.asDouble());
  }

  /// Returns the bytes of a text of hexadecimal digits.
  [[nodiscard]] Data bytes(std::string_view name) const {
    const std::string digits = text(name).value_or("");
    Data bytes;
    constexpr std::size_t kDigitsPerByte = 2;
    constexpr int kHexadecimal = 16;
    for (std::size_t at = 0; at < digits.size(); at += kDigitsPerByte) {
      const std::string pair = digits.substr(at, kDigitsPerByte);
      const bool isHex =
          pair.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos && pair.size() == kDigitsPerByte;
      if (!isHex) throw bad(name, "a text with two hexadecimal digits per byte");
      bytes.push_back(static_cast<std::uint8_t>(std::stoul(pair, nullptr, kHexadecimal)));
    }
    return bytes;
  }

 private:
  static constexpr std::string_view kName = "name";

  template <class Content, class Optional>
  [[nodiscard]] Optional get(std::string_view name, const char* expected) const {
    if (!has(name)) return std::nullopt;
    const auto* content = members_[name].get<Content>();
    if (content == nullptr) throw bad(name, expected);
    return *content;
  }

  static BadLine bad(std::string_view name, const char* expected) {
    return BadLine("\"" + std::string(name) + "\" is not " + expected);
  }

  Dictionary members_;
};

void logAppEvent(const Members& members) {
  const auto name = members.text("name");
  const auto info = members.info();
  if (members.has("shouldFlatten")) {
    KelvoSDK::logAppEventWithName(name, info, members.flag("shouldFlatten"), members.flag("isAggregate"));
  } else if (members.has("isAggregate")) {
    KelvoSDK::logAppEventWithName(name, info, members.flag("isAggregate"));
  } else {
    KelvoSDK::logAppEventWithName(name, info);
  }
}

void logClientEvent(const Members& members) {
  const auto name = members.text("name");
  const auto info = members.info();
  if (members.has("shouldFlatten")) {
    KelvoSDK::logClientEventWithName(name, info, members.flag("shouldFlatten"));
  } else {
    KelvoSDK::logClientEventWithName(name, info);
  }
}

void deviceToken(const Members& members) {
  if (members.has("hex")) {
    Application::logDeviceToken(members.bytes("hex"));
  } else {
    Application::logDeviceToken(members.text("text"));
  }
}

void printDeviceID() {
  std::printf("%s\n", KelvoSDK::getDeviceID().value_or("").c_str());
  std::fflush(stdout);
}

void listen(const Members& members) {
  if (members.has("type") == members.has("identifier")) throw BadLine("listen takes either \"type\" or \"identifier\"");
  if (members.has("identifier")) return listenForIdentifier(members.required("identifier"));
  if (!listenForType(members.required("type"))) throw BadLine("no such type: " + members.required("type"));
}

/// The host's latest report of activity.
bool leftForeground = false;

void setActive(bool isActive) {
  isActive ? Application::didBecomeActive() : Application::willResignActive();
  leftForeground = !isActive;
}

struct Call {
  std::vector<std::string_view> members;
  std::function<void(const Members&)> make;
};

const std::map<std::string, Call>& calls() {
  static const std::map<std::string, Call> all{
      {"initializeKelvoWithID", {{"id"}, [](const Members& members) { start(members.text("id")); }}},
      {"logAppEventWithName", {{"name", "info", "isAggregate", "shouldFlatten"}, logAppEvent}},
      {"logClientEventWithName", {{"name", "info", "shouldFlatten"}, logClientEvent}},
      {"logScreenWithName",
       {{"name"}, [](const Members& members) { KelvoSDK::logScreenWithName(members.text("name")); }}},
      {"setUserIdentifier",
       {{"identifier"}, [](const Members& members) { KelvoSDK::setUserIdentifier(members.text("identifier")); }}},
      {"setUserCustomInfo", {{"info"}, [](const Members& members) { KelvoSDK::setUserCustomInfo(members.info()); }}},
      {"setSessionCustomInfo",
       {{"info"}, [](const Members& members) { KelvoSDK::setSessionCustomInfo(members.info()); }}},
      {"reportCustomError",
       {{"error", "info"},
        [](const Members& members) { KelvoSDK::reportCustomError(members.text("error"), members.info()); }}},
      {"deviceToken", {{"text", "hex"}, deviceToken}},
      {"willShow",
       {{"screen", "title"},
        [](const Members& members) { Application::willShow(members.text("screen"), members.text("title")); }}},
      {"didShow",
       {{"screen", "title"},
        [](const Members& members) { Application::didShow(members.text("screen"), members.text("title")); }}},
      {"didBecomeActive", {{}, [](const Members&) { setActive(true); }}},
      {"willResignActive", {{}, [](const Members&) { setActive(false); }}},
      {"getDeviceID", {{}, [](const Members&) { printDeviceID(); }}},
      {"erase", {{}, [](const Members&) { KelvoSDK::erase(); }}},
      {"listen", {{"type", "identifier"}, listen}},
      {"sync",
       {{"type", "version", "seconds"},
        [](const Members& members) {
          sync(members.required("type"), members.text("version").value_or("1"), members.seconds());
        }}},
      {"wait",
       {{"seconds"}, [](const Members& members) { std::this_thread::sleep_until(deadlineIn(members.seconds())); }}},
      {"waitUntilReady",
       {{"seconds"}, [](const Members& members) { waitUntilStarted(deadlineIn(members.seconds())); }}},
  };
  return all;
}

}  // namespace

void play(const std::string& line) {
  std::string error;
  const auto parsed = parseJSON(line, &error);
  if (!parsed) throw BadLine("not JSON: " + error);
  const auto* members = parsed->get<Dictionary>();
  if (members == nullptr) throw BadLine("not a JSON object");
  std::string name = "logAppEventWithName";
  if (const Value& call = (*members)["call"]; !call.isNull()) {
    if (call.get<std::string>() == nullptr) throw BadLine("\"call\" is not a text");
    name = *call.get<std::string>();
  }
  const auto call = calls().find(name);
  if (call == calls().end()) throw BadLine("no such call: " + name);
  const Members checked(*members);
  checked.check(call->second.members);
  call->second.make(checked);
}

void start(const OptionalText& appId) {
  if (appId) useHomeOf(*appId);
  KelvoSDK::initializeKelvoWithID(appId);
}

bool isInBackground() {
  return leftForeground;
}

}  // namespace kelvo::log
