// A host whose calls are easily mistaken: names without bare flags, nested literals, null pointers. The test compiles
// it with both compilers, as C++17 and C++20, with all warnings as errors. It returns the number of faults.
#include <kelvo/KelvoSDK.h>

#include <cstdio>
#include <string>
#include <type_traits>

using kelvo::Application;
using kelvo::Array;
using kelvo::Dictionary;
using kelvo::EventOptions;
using kelvo::KelvoSDK;
using kelvo::Value;

namespace {

int faults = 0;

void expect(const kelvo::OptionalDictionary& info, const std::string& json) {
  const std::string text = info ? kelvo::description(Value(*info)) : "nil";
  if (text == json) return;
  ++faults;
  std::printf("%s instead of %s\n", text.c_str(), json.c_str());
}

// Two texts are neither a value nor the two ends of one text.
static_assert(!std::is_constructible_v<Value, const char*, const char*>);

void checkLiterals() {
  const std::string key = "k";
  expect({}, "nil");
  expect(nullptr, "nil");
  expect({{"a", "b"}}, R"({"a":"b"})");
  expect({{"a", "b"}, {"c", "d"}}, R"({"a":"b","c":"d"})");
  expect({{"d", {{"x", 1}}}}, R"({"d":{"x":1}})");
  expect({{"d", {{"x", {{"y", true}}}}}}, R"({"d":{"x":{"y":true}}})");
  expect({{"d", {{"a", "b"}}}}, R"({"d":{"a":"b"}})");
  expect({{"d", {{"a", "b"}, {"c", "d"}}}, {"e", 2.5}}, R"({"d":{"a":"b","c":"d"},"e":2.5})");
  expect({{key, {{key, key}}}}, R"({"k":{"k":"k"}})");
  expect({{"d", Array{1, 2}}, {"e", Array{"a", "b"}}}, R"({"d":[1,2],"e":["a","b"]})");
  expect({{"d", Array{{{"a", "b"}}, {{"c", 1}}}}}, R"({"d":[{"a":"b"},{"c":1}]})");
  expect({{"d", {}}, {"e", nullptr}, {"f", Dictionary{}}}, R"({"d":null,"e":null,"f":{}})");
  Dictionary filled{{"a", {{"b", "c"}}}};
  filled.set("d", {{"x", "y"}});
  expect(filled, R"({"a":{"b":"c"},"d":{"x":"y"}})");
  const Value same{Value{{"a", "b"}}};
  expect({{"one", Value{1}}, {"text", Value{"t"}}, {"same", same}}, R"({"one":1,"text":"t","same":{"a":"b"}})");
}

void log() {
  KelvoSDK::logAppEventWithName("Nested", {{"d", {{"x", 1}}}});
  KelvoSDK::logAppEventWithName("Flat", {{"d", {{"x", 1}}}}, EventOptions{true});
  KelvoSDK::logAppEventWithName("Plain", {}, EventOptions());
  KelvoSDK::logAppEventWithName("Old", {{"d", {{"x", 1}}}}, true, false);
  KelvoSDK::logAppEventWithName("OldCount", {{"a", "b"}}, true);
  KelvoSDK::logClientEventWithName("Client", {{"a", "b"}}, EventOptions{true});
  KelvoSDK::logAggregateEvent("Count");
  KelvoSDK::logAggregateEvent("FlatCount", {{"d", {{"x", 1}}}}, EventOptions{true});
  Application::show("Cart");
  Application::show("Help", "About us");
  Application::show("Cart");
  Application::willShow(nullptr);
  Application::didShow(nullptr);
}

}  // namespace

int main() {
  checkLiterals();
  KelvoSDK::initializeKelvoWithID("names");
  log();
  return faults;
}
