#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "kelvo/Value.h"

struct sqlite3_stmt;

namespace kelvo {

/// A prepared statement together with what is bound to it. Finalized when it dies.
///
/// SQLite reads bound text and bytes in place, so the statement keeps its arguments for as long as it lives.
class FMKLVStatement {
 public:
  /// Takes `statement` over; it may be null, as SQLite prepares an empty text.
  FMKLVStatement(sqlite3_stmt* statement, std::string query);
  FMKLVStatement(const FMKLVStatement&) = delete;
  FMKLVStatement& operator=(const FMKLVStatement&) = delete;
  ~FMKLVStatement() { close(); }

  /// Binds an array to the parameters 1 to n, or a dictionary to the parameters named ":key". Values beyond the
  /// last parameter and keys without one are left out. Returns how many were bound.
  int bindArguments(const Value& arguments, bool trace, bool logsErrors);
  [[nodiscard]] int parameterCount() const noexcept;

  /// Both return SQLite's code for the last step when that failed.
  int close() noexcept;
  int reset() noexcept;

  [[nodiscard]] sqlite3_stmt* statement() const noexcept { return statement_; }
  [[nodiscard]] const std::string& query() const noexcept { return query_; }
  [[nodiscard]] std::int64_t useCount() const noexcept { return useCount_; }
  void countUse() noexcept { ++useCount_; }
  [[nodiscard]] bool inUse() const noexcept { return inUse_; }
  void setInUse(bool inUse) noexcept { inUse_ = inUse; }
  [[nodiscard]] std::string description() const;

 private:
  /// False when SQLite refuses the value, because it is too large or there is no such column.
  bool bindObject(const Value& value, int column);
  bool bindText(const std::string& text, int column);

  sqlite3_stmt* statement_;
  std::string query_;
  std::int64_t useCount_ = 0;
  bool inUse_ = false;
  Value arguments_;
  std::deque<std::string> texts_;  // descriptions of what is no text itself; their addresses must not change
};

}  // namespace kelvo
