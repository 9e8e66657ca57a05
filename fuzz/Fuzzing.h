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

/// Ends the run with a finding.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

/// No log lines: writing them is not what is looked at here.
inline void beQuiet() {
  KLVLogger::setLogLevel(4);
  KLVLogger::setSink([](KLVLogger::Level, std::string_view) {});
}

/// Everything that readers ask single members of a document for.
inline void askEverythingOf(const Value& value) {
  static_cast<void>(value.asInt64());
  static_cast<void>(value.asUInt64());
  static_cast<void>(value.asDouble());
  static_cast<void>(value.asBool());
  static_cast<void>(description(value));
  if (const auto* dictionary = value.get<Dictionary>()) {
    for (const auto& entry : *dictionary) askEverythingOf(entry.second);
  } else if (const auto* array = value.get<Array>()) {
    for (const Value& element : *array) askEverythingOf(element);
  }
}

/// What is written as JSON reads back as the same value, and is written alike again.
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
