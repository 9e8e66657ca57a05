#include <sqlite3.h>

#include <exception>
#include <utility>

#include "sqlite/FMKLVDatabase.h"
#include "sqlite/FMKLVNames.h"
#include "util/KLVLogger.h"

namespace kelvo {

/// A block of the host as a SQL function. SQLite points to it until the connection closes.
struct FMKLVDatabase::CustomFunction {
  Function block;
  int maximumArguments;
  const FMKLVDatabase& connection;

  static void call(sqlite3_context* context, int count, sqlite3_value** values) noexcept;
  static Value argument(sqlite3_value* value);
  void setResult(sqlite3_context* context, const Value& result) const;
};

void FMKLVDatabase::CustomFunction::call(sqlite3_context* context, int count, sqlite3_value** values) noexcept {
  const auto& self = *static_cast<const CustomFunction*>(sqlite3_user_data(context));
  if (self.maximumArguments >= 0 && count > self.maximumArguments) {
    return sqlite3_result_error(context, "too many arguments", -1);
  }
  try {
    Array arguments;
    for (int index = 0; index < count; ++index) arguments.append(argument(values[index]));
    self.setResult(context, self.block(arguments));
  } catch (const std::exception& error) {
    sqlite3_result_error(context, error.what(), -1);
  } catch (...) {
    sqlite3_result_error(context, "the function threw an unknown exception", -1);
  }
}

Value FMKLVDatabase::CustomFunction::argument(sqlite3_value* value) {
  switch (sqlite3_value_type(value)) {
    case SQLITE_INTEGER: return static_cast<std::int64_t>(sqlite3_value_int64(value));
    case SQLITE_FLOAT: return sqlite3_value_double(value);
    case SQLITE_BLOB: {
      const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_value_blob(value));
      return bytes == nullptr ? Data() : Data(bytes, bytes + sqlite3_value_bytes(value));
    }
    case SQLITE_TEXT: {
      const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(value));
      if (text == nullptr) return nullptr;  // out of memory
      return std::string(text, static_cast<std::size_t>(sqlite3_value_bytes(value)));
    }
    default: return nullptr;
  }
}

/// Follows the rules of `FMKLVStatement::bindArguments`, but SQLite copies texts and bytes.
void FMKLVDatabase::CustomFunction::setResult(sqlite3_context* context, const Value& result) const {
  const auto setText = [&](const std::string& text) {
    sqlite3_result_text64(context, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
  };
  if (result.isNull()) return sqlite3_result_null(context);
  if (const auto* text = result.get<std::string>()) return setText(*text);
  if (const auto* bytes = result.get<Data>()) {
    if (bytes->empty()) return sqlite3_result_zeroblob(context, 0);
    return sqlite3_result_blob64(context, bytes->data(), bytes->size(), SQLITE_TRANSIENT);
  }
  if (const auto* flag = result.get<bool>()) return sqlite3_result_int(context, *flag ? 1 : 0);
  if (const auto* number = result.get<std::uint64_t>()) {
    return sqlite3_result_int64(context, static_cast<std::int64_t>(*number));
  }
  if (result.isInteger()) return sqlite3_result_int64(context, result.asInt64());
  if (result.isNumber()) return sqlite3_result_double(context, result.asDouble());
  if (const auto* date = result.get<Date>()) {
    if (const auto text = connection.stringFromDate(*date)) return setText(*text);
    return sqlite3_result_double(context, secondsSince1970(*date));
  }
  setText(kelvo::description(result));
}

bool FMKLVDatabase::makeFunctionNamed(const std::string& name, int maximumArguments, Function block) {
  if (!isFree()) return false;
  const auto made = std::make_shared<CustomFunction>(CustomFunction{std::move(block), maximumArguments, *this});
  constexpr int kAnyCount = -1;  // `call` checks the maximum, because SQLite can only require an exact count
  const int code = sqlite3_create_function_v2(db(), name.c_str(), kAnyCount, SQLITE_UTF8, made.get(),
                                              &CustomFunction::call, nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) {
    handle_.noteFailure(code);
    if (logsErrors_) KLV_ERROR("Unable to make the function {} ({}: {})", name, code, lastErrorMessage());
    return false;
  }
  openFunctions_[lowerCased(name)] = made;
  return true;
}

FMKLVDateFormatter FMKLVDatabase::storeableDateFormat(std::string pattern) {
  return FMKLVDateFormatter(std::move(pattern));
}

void FMKLVDatabase::setDateFormat(std::optional<FMKLVDateFormatter> format) {
  dateFormat_ = std::move(format);
}

std::optional<Date> FMKLVDatabase::dateFromString(const std::string& text) const {
  return dateFormat_ ? dateFormat_->dateFromString(text) : std::nullopt;
}

std::optional<std::string> FMKLVDatabase::stringFromDate(Date date) const {
  if (!dateFormat_) return std::nullopt;
  return dateFormat_->stringFromDate(date);
}

bool FMKLVDatabase::refuseKey() {
  KLV_ERROR("This SQLite does not encrypt: the database has no key");
  handle_.keepFailure({"FMDatabase", SQLITE_ERROR, "This SQLite does not encrypt"});
  return false;
}

bool FMKLVDatabase::setKey(const std::string&) {
  return refuseKey();
}
bool FMKLVDatabase::setKeyWithData(const Data&) {
  return refuseKey();
}
bool FMKLVDatabase::rekey(const std::string&) {
  return refuseKey();
}
bool FMKLVDatabase::rekeyWithData(const Data&) {
  return refuseKey();
}

}  // namespace kelvo
