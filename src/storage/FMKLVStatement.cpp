#include "storage/FMKLVStatement.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <chrono>
#include <utility>

#include "util/KLVLogger.h"

namespace kelvo {

FMKLVStatement::FMKLVStatement(sqlite3_stmt* statement, std::string query)
    : statement_(statement), query_(std::move(query)) {}

int FMKLVStatement::bindArguments(const Value& arguments, bool trace, bool logsErrors) {
  arguments_ = arguments;
  int bound = 0;
  const auto bind = [&](const Value& value, int column) {
    if (trace) {
      if (const auto* bytes = value.get<Data>()) {
        KLV_DEBUG("data: {} bytes", bytes->size());
      } else {
        KLV_DEBUG("obj: {}", value);
      }
    }
    if (bindObject(value, column)) ++bound;
  };

  if (const auto* dictionary = arguments_.get<Dictionary>()) {
    for (const auto& [key, value] : *dictionary) {
      const int column = sqlite3_bind_parameter_index(statement_, (":" + key).c_str());
      if (column > 0) {
        bind(value, column);
      } else if (logsErrors) {
        KLV_ERROR("Could not find index for {}", key);
      }
    }
  } else if (const auto* array = arguments_.get<Array>()) {
    const int count = parameterCount();
    for (const Value& value : *array) {
      if (bound == count) break;
      const int before = bound;
      bind(value, bound + 1);
      if (bound == before) break;
    }
  }
  return bound;
}

int FMKLVStatement::parameterCount() const noexcept {
  return sqlite3_bind_parameter_count(statement_);
}

bool FMKLVStatement::bindObject(const Value& value, int column) {
  if (value.isNull()) return sqlite3_bind_null(statement_, column) == SQLITE_OK;
  if (const auto* text = value.get<std::string>()) return bindText(*text, column);
  if (const auto* bytes = value.get<Data>()) {
    // A null pointer would bind NULL in place of empty bytes.
    const void* content = bytes->empty() ? static_cast<const void*>("") : bytes->data();
    return sqlite3_bind_blob64(statement_, column, content, bytes->size(), SQLITE_STATIC) == SQLITE_OK;
  }
  if (const auto* flag = value.get<bool>()) return sqlite3_bind_int(statement_, column, *flag ? 1 : 0) == SQLITE_OK;
  if (const auto* number = value.get<std::uint64_t>(); number != nullptr && *number > INT64_MAX) {
    texts_.push_back(kelvo::description(value));  // SQLite has no such integer, and a double would lose digits
    return bindText(texts_.back(), column);
  }
  if (value.isInteger()) return sqlite3_bind_int64(statement_, column, value.asInt64()) == SQLITE_OK;
  if (value.isNumber()) return sqlite3_bind_double(statement_, column, value.asDouble()) == SQLITE_OK;
  if (const auto* date = value.get<Date>()) {
    const std::chrono::duration<double> seconds = date->time_since_epoch();
    return sqlite3_bind_double(statement_, column, seconds.count()) == SQLITE_OK;
  }
  texts_.push_back(kelvo::description(value));
  return bindText(texts_.back(), column);
}

bool FMKLVStatement::bindText(const std::string& text, int column) {
  return sqlite3_bind_text64(statement_, column, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8) == SQLITE_OK;
}

int FMKLVStatement::close() noexcept {
  inUse_ = false;
  return sqlite3_finalize(std::exchange(statement_, nullptr));
}

int FMKLVStatement::reset() noexcept {
  inUse_ = false;
  return statement_ == nullptr ? SQLITE_OK : sqlite3_reset(statement_);
}

std::string FMKLVStatement::description() const {
  return fmt::format("<FMKLVStatement: {}> {} hit(s) for query {}", fmt::ptr(this), useCount_, query_);
}

}  // namespace kelvo
