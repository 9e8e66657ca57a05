#include "sqlite/FMKLVStatement.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <utility>

#include "platform/Thread.h"

namespace kelvo {

FMKLVStatement::FMKLVStatement(sqlite3_stmt* statement, std::string query)
    : statement_(statement), query_(std::move(query)) {}

int FMKLVStatement::close() noexcept {
  inUse_ = false;
  sqlite3_stmt* statement = std::exchange(statement_, nullptr);
  if (statement == nullptr || inForkedChild()) return SQLITE_OK;
  return sqlite3_finalize(statement);
}

int FMKLVStatement::reset() noexcept {
  inUse_ = false;
  if (statement_ == nullptr || inForkedChild()) return SQLITE_OK;
  const int code = sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);  // before the bound texts and bytes are freed
  arguments_ = {};
  texts_.clear();
  return code;
}

std::string FMKLVStatement::description() const {
  return fmt::format("<FMKLVStatement: {}> {} hit(s) for query {}", fmt::ptr(this), useCount_, query_);
}

}  // namespace kelvo
