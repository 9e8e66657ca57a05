#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"
#include "platform/JSON.h"
#include "util/KLVLogger.h"

namespace kelvo::fuzz {

/// Aborts, which the fuzzer reports as a finding, if a property does not hold. `what` names the property.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

/// Discards log lines: they cost time and are not under test.
inline void silenceLog() {
  KLVLogger::setLogLevel(KLVLogger::Level::error);
  KLVLogger::setSink([](KLVLogger::Level, std::string_view) {});
}

/// Calls every conversion on `value` and on everything in it, as the library does with members of a document.
inline void callEveryConversion(const Value& value) {
  static_cast<void>(value.asInt64());
  static_cast<void>(value.asUInt64());
  static_cast<void>(value.asDouble());
  static_cast<void>(value.asBool());
  static_cast<void>(description(value));
  if (const auto* dictionary = value.get<Dictionary>()) {
    for (const auto& entry : *dictionary) callEveryConversion(entry.second);
  } else if (const auto* array = value.get<Array>()) {
    for (const Value& element : *array) callEveryConversion(element);
  }
}

/// Requires that `value`, written as JSON, reads back as an equal value and is then written as the same text.
inline void requireRoundTrip(const Value& value) {
  std::string error;
  const auto text = jsonText(value, &error);
  require(text.has_value(), error.c_str());
  const auto again = parseJSON(*text, &error);
  require(again.has_value(), error.c_str());
  require(*again == value, "JSON reads back as another value");
  require(jsonText(*again) == text, "JSON is written in another way the second time");
}

}  // namespace kelvo::fuzz
