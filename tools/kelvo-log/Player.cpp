#include "kelvo-log/Player.h"

#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <thread>

#include "kelvo-log/Delivery.h"
#include "kelvo-log/Listening.h"
#include "kelvo/KelvoSDK.h"
#include "platform/JSON.h"

namespace kelvo::log {
namespace {

/// The members of a line, by the types that its call expects.
class Members {
 public:
  explicit Members(Dictionary members) : members_(std::move(members)) {}

  [[nodiscard]] OptionalText text(std::string_view name) const { return get<std::string, OptionalText>(name, "text"); }
  [[nodiscard]] OptionalDictionary info() const { return get<Dictionary, OptionalDictionary>("info", "object"); }
  [[nodiscard]] bool has(std::string_view name) const { return !members_[name].isNull(); }

  /// A text that must not be left out.
  [[nodiscard]] std::string needed(std::string_view name) const {
    const auto given = text(name);
    if (!given) throw bad(name, "text");
    return *given;
  }

  [[nodiscard]] bool flag(std::string_view name) const {
    if (has(name) && members_[name].get<bool>() == nullptr) throw bad(name, "bool");
    return members_[name].asBool();
  }

  [[nodiscard]] std::chrono::duration<double> seconds() const {
    const Value& value = members_["seconds"];
    if (!value.isNumber() || value.get<bool>() != nullptr || value.asDouble() < 0)
      throw bad("seconds", "number from 0");
    return std::chrono::duration<double>(value.asDouble());
  }

  [[nodiscard]] Data bytes(std::string_view name) const {
    const std::string digits = text(name).value_or("");
    Data bytes;
    for (std::size_t at = 0; at < digits.size(); at += 2) {
      const std::string pair = digits.substr(at, 2);
      const bool isHex = pair.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos && pair.size() == 2;
      if (!isHex) throw bad(name, "text of two hexadecimal digits a byte");
      bytes.push_back(static_cast<std::uint8_t>(std::stoul(pair, nullptr, 16)));
    }
    return bytes;
  }

 private:
  template <class Content, class Optional>
  [[nodiscard]] Optional get(std::string_view name, const char* type) const {
    if (!has(name)) return std::nullopt;
    const auto* content = members_[name].get<Content>();
    if (content == nullptr) throw bad(name, type);
    return *content;
  }

  static BadLine bad(std::string_view name, const char* type) {
    return BadLine("\"" + std::string(name) + "\" is no " + type);
  }

  Dictionary members_;
};

void logAppEvent(const Members& line) {
  const auto name = line.text("name");
  const auto info = line.info();
  if (line.has("shouldFlatten")) {
    KelvoSDK::logAppEventWithName(name, info, line.flag("shouldFlatten"), line.flag("isAggregate"));
  } else if (line.has("isAggregate")) {
    KelvoSDK::logAppEventWithName(name, info, line.flag("isAggregate"));
  } else {
    KelvoSDK::logAppEventWithName(name, info);
  }
}

void logClientEvent(const Members& line) {
  const auto name = line.text("name");
  const auto info = line.info();
  if (line.has("shouldFlatten")) {
    KelvoSDK::logClientEventWithName(name, info, line.flag("shouldFlatten"));
  } else {
    KelvoSDK::logClientEventWithName(name, info);
  }
}

void deviceToken(const Members& line) {
  if (line.has("hex")) {
    Application::logDeviceToken(line.bytes("hex"));
  } else {
    Application::logDeviceToken(line.text("text"));
  }
}

void printDeviceID() {
  std::printf("%s\n", KelvoSDK::getDeviceID().value_or("").c_str());
  std::fflush(stdout);
}

void listen(const Members& line) {
  if (line.has("type") == line.has("identifier")) throw BadLine("listen takes either \"type\" or \"identifier\"");
  if (line.has("identifier")) return listenForIdentifier(line.needed("identifier"));
  if (!listenForType(line.needed("type"))) throw BadLine("no such type: " + line.needed("type"));
}

using Call = std::function<void(const Members&)>;

const std::map<std::string, Call>& calls() {
  static const std::map<std::string, Call> all{
      {"initializeKelvoWithID", [](const Members& line) { KelvoSDK::initializeKelvoWithID(line.text("id")); }},
      {"logAppEventWithName", logAppEvent},
      {"logClientEventWithName", logClientEvent},
      {"logScreenWithName", [](const Members& line) { KelvoSDK::logScreenWithName(line.text("name")); }},
      {"setUserIdentifier", [](const Members& line) { KelvoSDK::setUserIdentifier(line.text("identifier")); }},
      {"setUserCustomInfo", [](const Members& line) { KelvoSDK::setUserCustomInfo(line.info()); }},
      {"setSessionCustomInfo", [](const Members& line) { KelvoSDK::setSessionCustomInfo(line.info()); }},
      {"reportCustomError", [](const Members& line) { KelvoSDK::reportCustomError(line.text("error"), line.info()); }},
      {"deviceToken", deviceToken},
      {"didBecomeActive", [](const Members&) { Application::didBecomeActive(); }},
      {"willShow", [](const Members& line) { Application::willShow(line.text("screen"), line.text("title")); }},
      {"didShow", [](const Members& line) { Application::didShow(line.text("screen"), line.text("title")); }},
      {"willResignActive", [](const Members&) { Application::willResignActive(); }},
      {"getDeviceID", [](const Members&) { printDeviceID(); }},
      {"listen", listen},
      {"sync",
       [](const Members& line) { sync(line.needed("type"), line.text("version").value_or("1"), line.seconds()); }},
      {"wait", [](const Members& line) { std::this_thread::sleep_until(deadlineIn(line.seconds())); }},
      {"waitUntilReady", [](const Members& line) { waitUntilStarted(deadlineIn(line.seconds())); }},
  };
  return all;
}

}  // namespace

void play(const std::string& line) {
  std::string error;
  const auto parsed = parseJSON(line, &error);
  if (!parsed) throw BadLine("no JSON: " + error);
  const auto* members = parsed->get<Dictionary>();
  if (members == nullptr) throw BadLine("no JSON object");
  std::string name = "logAppEventWithName";
  if (const Value& call = (*members)["call"]; !call.isNull()) {
    if (call.get<std::string>() == nullptr) throw BadLine("\"call\" is no text");
    name = *call.get<std::string>();
  }
  const auto call = calls().find(name);
  if (call == calls().end()) throw BadLine("no such call: " + name);
  call->second(Members(*members));
}

}  // namespace kelvo::log
