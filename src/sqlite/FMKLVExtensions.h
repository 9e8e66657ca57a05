#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "kelvo/Value.h"
#include "sqlite/FMKLVDateFormatter.h"

namespace kelvo {

class FMKLVDatabase;

/// What a connection can be taught: how dates are stored, and functions of our own in SQL.
class FMKLVExtensions {
 public:
  // --- Dates are stored as text when there is a formatter, else as seconds since 1970.

  [[nodiscard]] static FMKLVDateFormatter storeableDateFormat(std::string pattern) {
    return FMKLVDateFormatter(std::move(pattern));
  }
  void setDateFormat(std::optional<FMKLVDateFormatter> format) { dateFormat_ = std::move(format); }
  [[nodiscard]] bool hasDateFormatter() const noexcept { return dateFormat_.has_value(); }
  /// Both are nullopt without a formatter.
  [[nodiscard]] std::optional<Date> dateFromString(const std::string& text) const;
  [[nodiscard]] std::optional<std::string> stringFromDate(Date date) const;

  // --- Functions.

  using Function = std::function<Value(const Array& arguments)>;
  /// Lasts until the connection closes, and replaces one of that name. A maximum below 0 allows any number. What the
  /// block throws fails the statement that called it.
  [[nodiscard]] bool makeFunctionNamed(const std::string& name, int maximumArguments, Function block);

  // --- Keys of an encrypted database. Plain SQLite knows none, so all of these fail.

  [[nodiscard]] bool setKey(const std::string& key);
  [[nodiscard]] bool setKeyWithData(const Data& key);
  [[nodiscard]] bool rekey(const std::string& key);
  [[nodiscard]] bool rekeyWithData(const Data& key);

 protected:
  FMKLVExtensions() = default;
  FMKLVExtensions(const FMKLVExtensions&) = delete;
  FMKLVExtensions& operator=(const FMKLVExtensions&) = delete;
  ~FMKLVExtensions() = default;

  [[nodiscard]] const FMKLVDateFormatter* dateFormat() const noexcept { return dateFormat_ ? &*dateFormat_ : nullptr; }
  /// The connection has closed, so that nothing can call them any more.
  void forgetFunctions() noexcept { openFunctions_.clear(); }

 private:
  struct CustomFunction;
  [[nodiscard]] FMKLVDatabase& database() noexcept;
  [[nodiscard]] bool refuseKey();

  std::map<std::string, std::shared_ptr<CustomFunction>> openFunctions_;  // by lower-cased name
  std::optional<FMKLVDateFormatter> dateFormat_;
};

}  // namespace kelvo
