#include "c/Interface.h"
#include "c/HostCall.h"

#include <cstdlib>
#include <string_view>

#include "kelvo/Application.h"

namespace kelvo::c {
namespace {

void logError(const char* function, const std::string& what) {
  Application::writeLogLine(LogLevel::error, std::string(function) + ": " + what);
}

}  // namespace

OptionalText text(const char* argument) noexcept {
  OptionalText text;
  guarded([&] { text = OptionalText(argument); });
  return text;
}

std::string textOrEmpty(const char* argument) noexcept {
  return text(argument).value_or(std::string());
}

std::optional<Value> value(const char* function, const char* json) noexcept {
  std::optional<Value> value;
  guarded([&] {
    std::string error;
    value = Value::fromJSON(json != nullptr ? json : "", &error);
    if (!value) logError(function, "the argument is no JSON: " + error);
  });
  return value;
}

OptionalDictionary dictionary(const char* function, const char* json) noexcept {
  if (json == nullptr) return {};
  const auto any = value(function, json);
  if (!any) return {};
  auto dictionary = any->asDictionary();
  if (!dictionary) guarded([&] { logError(function, "the argument is JSON, but no object"); });
  return dictionary;
}

OptionalDictionary dictionary(const char* /*function*/, const kelvo_attributes* attributes) noexcept {
  return attributes != nullptr ? OptionalDictionary(attributes->values) : OptionalDictionary();
}

char* returned(const std::optional<std::string>& text) noexcept {
  if (!text) return nullptr;
  auto* copy = static_cast<char*>(std::malloc(text->size() + 1));
  if (copy != nullptr) std::memcpy(copy, text->c_str(), text->size() + 1);
  return copy;
}

char* returnedJSON(const std::optional<Dictionary>& dictionary) noexcept {
  char* text = nullptr;
  guarded([&] {
    if (dictionary) text = returned(description(*dictionary));
  });
  return text;
}

std::optional<LogLevel> logLevel(kelvo_log_level level) noexcept {
  switch (level) {
    case KELVO_LOG_DEBUG: return LogLevel::debug;
    case KELVO_LOG_INFO: return LogLevel::info;
    case KELVO_LOG_WARN: return LogLevel::warn;
    case KELVO_LOG_ERROR: return LogLevel::error;
    case KELVO_LOG_OFF: return LogLevel::off;
    case KELVO_LOG_DEFAULT: break;
  }
  return std::nullopt;
}

LogSink logSink(kelvo_log_sink sink, void* context) noexcept {
  if (sink == nullptr) return {};
  return [sink, context](LogLevel level, std::string_view line) {
    const HostCall call;
    if (!call.mayBegin()) return;
    sink(static_cast<kelvo_log_level>(static_cast<int>(level) + KELVO_LOG_DEBUG), std::string(line).c_str(), context);
  };
}

bool covers(const char* function, std::size_t size, std::size_t needed) noexcept {
  if (size >= needed) return true;
  guarded([&] {
    logError(function, "the struct's size is " + std::to_string(size) + ", but needs " + std::to_string(needed));
  });
  return false;
}

}  // namespace kelvo::c

void kelvo_free(void* text) {
  std::free(text);
}
