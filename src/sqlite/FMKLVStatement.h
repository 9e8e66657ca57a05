#pragma once

#include <cstdint>
#include <forward_list>
#include <string>

#include "sqlite/FMKLVArguments.h"

struct sqlite3_stmt;

namespace kelvo {

class FMKLVDateFormatter;

/// A prepared statement and its bound arguments. The destructor finalizes it.
///
/// SQLite reads bound texts and bytes in place, so the statement keeps its arguments until `reset` or `close`.
class FMKLVStatement {
 public:
  struct BindingRules {
    bool traceExecution = false;
    bool logsErrors = true;
    const FMKLVDateFormatter* dateFormat = nullptr;  ///< nullptr: dates are bound as seconds since 1970
  };

  /// Takes ownership of `statement`. It is nullptr if the SQL text contains no statement.
  FMKLVStatement(sqlite3_stmt* statement, std::string query);
  FMKLVStatement(const FMKLVStatement&) = delete;
  FMKLVStatement& operator=(const FMKLVStatement&) = delete;
  ~FMKLVStatement() { close(); }

  /// Returns the number of bound values. Success is exactly `parameterCount()`. The result is larger if a list is too
  /// long, and smaller if a parameter has no value or SQLite refuses a value. Keys without a parameter are ignored.
  int bindArguments(const FMKLVArguments& arguments, const BindingRules& rules);
  [[nodiscard]] int parameterCount() const noexcept;
  /// Returns SQLite's code for a refused value (most often, it is too large), or 0.
  [[nodiscard]] int bindCode() const noexcept { return bindCode_; }

  /// Releases the arguments and makes the statement ready for another run. Returns SQLite's code of the last run if
  /// that failed, otherwise 0.
  int reset() noexcept;
  /// Finalizes the statement. Returns the same as `reset`.
  int close() noexcept;
  /// Ends a use: resets a cached statement and closes any other.
  int finish() noexcept { return cached_ ? reset() : close(); }

  [[nodiscard]] sqlite3_stmt* statement() const noexcept { return statement_; }
  [[nodiscard]] const std::string& query() const noexcept { return query_; }
  [[nodiscard]] std::int64_t useCount() const noexcept { return useCount_; }
  void countUse() noexcept { ++useCount_; }
  /// Whether a result set or an update uses the statement.
  [[nodiscard]] bool inUse() const noexcept { return inUse_; }
  void setInUse(bool inUse) noexcept { inUse_ = inUse; }
  [[nodiscard]] bool isCached() const noexcept { return cached_; }
  void setCached(bool cached) noexcept { cached_ = cached; }
  /// `<FMKLVStatement: 0x...> 3 hit(s) for query select 1`
  [[nodiscard]] std::string description() const;

 private:
  int bindObject(const Value& value, int column, const BindingRules& rules);
  int bindText(const std::string& text, int column);
  int bindDescription(std::string text, int column);

  sqlite3_stmt* statement_;
  std::string query_;
  std::int64_t useCount_ = 0;
  bool inUse_ = false;
  bool cached_ = false;
  int bindCode_ = 0;
  FMKLVArguments arguments_;
  std::forward_list<std::string> texts_;  // texts made from other values; SQLite keeps their addresses
};

}  // namespace kelvo
