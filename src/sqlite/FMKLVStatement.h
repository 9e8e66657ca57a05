#pragma once

#include <cstdint>
#include <forward_list>
#include <string>

#include "sqlite/FMKLVArguments.h"

struct sqlite3_stmt;

namespace kelvo {

class FMKLVDateFormatter;

/// A prepared statement together with what is bound to it. Finalized when it dies.
///
/// SQLite reads bound text and bytes in place, so the statement keeps its arguments until it is reset or closed.
class FMKLVStatement {
 public:
  struct BindingRules {
    bool traceExecution = false;
    bool logsErrors = true;
    const FMKLVDateFormatter* dateFormat = nullptr;  ///< without one, dates are bound as seconds since 1970
  };

  /// Takes `statement` over; it may be null, as SQLite prepares an empty text.
  FMKLVStatement(sqlite3_stmt* statement, std::string query);
  FMKLVStatement(const FMKLVStatement&) = delete;
  FMKLVStatement& operator=(const FMKLVStatement&) = delete;
  ~FMKLVStatement() { close(); }

  /// Returns how many values were bound, which is to be `parameterCount`: more when a list is too long, less when a
  /// parameter is left over or SQLite refuses a value. Keys without a parameter are left out.
  int bindArguments(const FMKLVArguments& arguments, const BindingRules& rules);
  [[nodiscard]] int parameterCount() const noexcept;
  /// Why SQLite refused one of these values, for its size above all; 0 when it took them.
  [[nodiscard]] int bindCode() const noexcept { return bindCode_; }

  /// Ready for new arguments, and no longer in use. Returns SQLite's code for the last run when that failed.
  int reset() noexcept;
  /// Finalizes; as above.
  int close() noexcept;
  /// What its user calls in the end: resets a cached statement and closes any other.
  int finish() noexcept { return cached_ ? reset() : close(); }

  [[nodiscard]] sqlite3_stmt* statement() const noexcept { return statement_; }
  [[nodiscard]] const std::string& query() const noexcept { return query_; }
  [[nodiscard]] std::int64_t useCount() const noexcept { return useCount_; }
  void countUse() noexcept { ++useCount_; }
  /// While a result set or an update holds it.
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
  std::forward_list<std::string> texts_;  // of what is no text itself; their addresses must not change
};

}  // namespace kelvo
