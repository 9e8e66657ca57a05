#include <sqlite3.h>

#include <utility>

#include "sqlite/FMKLVDateFormatter.h"
#include "sqlite/FMKLVStatement.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

void trace(const Value& value) {
  if (const auto* bytes = value.get<Data>()) {
    KLV_DEBUG("data: {} bytes", bytes->size());
  } else {
    KLV_DEBUG("obj: {}", value);
  }
}

}  // namespace

int FMKLVStatement::bindArguments(const FMKLVArguments& arguments, const BindingRules& rules) {
  arguments_ = arguments;
  bindCode_ = SQLITE_OK;
  int bound = 0;
  const auto bind = [&](const Value& value, int column) {
    if (rules.traceExecution) trace(value);
    if (const int code = bindObject(value, column, rules); code != SQLITE_OK) {
      bindCode_ = code;
      return false;
    }
    ++bound;
    return true;
  };

  if (const auto* values = arguments_.byName()) {
    std::string name;
    for (const auto& [key, value] : *values) {
      name.assign(1, ':').append(key);
      const int column = sqlite3_bind_parameter_index(statement_, name.c_str());
      if (column > 0) {
        bind(value, column);
      } else if (rules.logsErrors) {
        KLV_ERROR("Could not find index for {}", key);
      }
    }
  } else if (const auto* list = arguments_.inOrder()) {
    if (list->size() > static_cast<std::size_t>(parameterCount())) return static_cast<int>(list->size());
    for (const Value& value : *list) {
      if (!bind(value, bound + 1)) break;
    }
  }
  return bound;
}

int FMKLVStatement::parameterCount() const noexcept {
  return sqlite3_bind_parameter_count(statement_);
}

int FMKLVStatement::bindObject(const Value& value, int column, const BindingRules& rules) {
  if (value.isNull()) return sqlite3_bind_null(statement_, column);
  if (const auto* text = value.get<std::string>()) return bindText(*text, column);
  if (const auto* bytes = value.get<Data>()) {
    // A null pointer would bind NULL instead of empty bytes.
    const void* content = bytes->empty() ? static_cast<const void*>("") : bytes->data();
    return sqlite3_bind_blob64(statement_, column, content, bytes->size(), SQLITE_STATIC);
  }
  if (const auto* flag = value.get<bool>()) return sqlite3_bind_int(statement_, column, *flag ? 1 : 0);
  if (const auto* number = value.get<std::uint64_t>()) {
    // Kept: a number above the signed range becomes negative. unsignedLongLongIntForColumn returns the original number.
    return sqlite3_bind_int64(statement_, column, static_cast<std::int64_t>(*number));
  }
  if (value.isInteger()) return sqlite3_bind_int64(statement_, column, value.asInt64());
  if (value.isNumber()) return sqlite3_bind_double(statement_, column, value.asDouble());
  if (const auto* date = value.get<Date>()) {
    if (rules.dateFormat != nullptr) return bindDescription(rules.dateFormat->stringFromDate(*date), column);
    return sqlite3_bind_double(statement_, column, secondsSince1970(*date));
  }
  return bindDescription(kelvo::description(value), column);
}

int FMKLVStatement::bindDescription(std::string text, int column) {
  return bindText(texts_.emplace_front(std::move(text)), column);
}

int FMKLVStatement::bindText(const std::string& text, int column) {
  return sqlite3_bind_text64(statement_, column, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

}  // namespace kelvo
