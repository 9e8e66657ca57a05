#include <sqlite3.h>

#include <cstdlib>
#include <utility>

#include "storage/FMKLVDatabase.h"
#include "util/KLVLogger.h"

namespace kelvo {

/// Stands while a statement is prepared and stepped; detects a connection that is used from two places at once.
class FMKLVDatabase::Execution {
 public:
  explicit Execution(FMKLVDatabase& database) : database_(database) {
    if (!database_.databaseExists()) return;
    if (database_.isExecutingStatement_) {
      KLV_ERROR("The FMDatabase {} is currently in use.", database_.description());
      return;
    }
    entered_ = database_.isExecutingStatement_ = true;
  }
  Execution(const Execution&) = delete;
  Execution& operator=(const Execution&) = delete;
  ~Execution() {
    if (entered_) database_.isExecutingStatement_ = false;
  }
  explicit operator bool() const noexcept { return entered_; }

 private:
  FMKLVDatabase& database_;
  bool entered_ = false;
};

std::unique_ptr<FMKLVResultSet> FMKLVDatabase::executeQuery(const std::string& sql, const Array& arguments) {
  return query(sql, arguments);
}

std::unique_ptr<FMKLVResultSet> FMKLVDatabase::executeQuery(const std::string& sql, const Dictionary& parameters) {
  return query(sql, parameters);
}

bool FMKLVDatabase::executeUpdate(const std::string& sql, const Array& arguments) {
  return update(sql, arguments);
}

bool FMKLVDatabase::executeUpdate(const std::string& sql, const Dictionary& parameters) {
  return update(sql, parameters);
}

std::unique_ptr<FMKLVStatement> FMKLVDatabase::prepare(const std::string& sql, const Value& arguments, Form form) {
  sqlite3_stmt* handle = nullptr;
  const int code = sqlite3_prepare_v2(db_, sql.c_str(), -1, &handle, nullptr);
  if (code != SQLITE_OK) {
    if (logsErrors_) {
      KLV_ERROR("DB Error: {} \"{}\"", lastErrorCode(), lastErrorMessage());
      KLV_ERROR("DB Query: {}", sql);
      KLV_ERROR("DB Path: {}", databasePath_);
    }
    if (crashOnErrors_) std::abort();
    return nullptr;
  }
  auto statement = std::make_unique<FMKLVStatement>(handle, sql);
  const int expected = statement->parameterCount();
  const int bound = statement->bindArguments(arguments, traceExecution_, logsErrors_);
  if (bound == expected) return statement;
  if (!logsErrors_) return nullptr;
  if (form == Form::query) {
    KLV_ERROR("Error: the bind count is not correct for the # of variables (executeQuery)");
  } else {
    KLV_ERROR("Error: the bind count ({}) is not correct for the # of variables in the query ({}) ({}) (executeUpdate)",
              bound, expected, sql);
  }
  return nullptr;
}

std::unique_ptr<FMKLVResultSet> FMKLVDatabase::query(const std::string& sql, const Value& arguments) {
  const Execution execution(*this);
  if (!execution) return nullptr;
  if (traceExecution_) KLV_DEBUG("{} executeQuery: {}", description(), sql);
  auto statement = prepare(sql, arguments, Form::query);
  if (!statement) return nullptr;
  statement->countUse();
  auto resultSet = FMKLVResultSet::resultSetWithStatement(std::move(statement), *this);
  openResultSets_.push_back(resultSet.get());
  return resultSet;
}

bool FMKLVDatabase::update(const std::string& sql, const Value& arguments) {
  const Execution execution(*this);
  if (!execution) return false;
  if (traceExecution_) KLV_DEBUG("{} executeUpdate: {}", description(), sql);
  const auto statement = prepare(sql, arguments, Form::update);
  return statement && step(*statement);
}

bool FMKLVDatabase::step(FMKLVStatement& statement) {
  const int code = sqlite3_step(statement.statement());
  const bool succeeded = code == SQLITE_DONE || code == SQLITE_OK;
  if (!succeeded && logsErrors_) {
    if (code == SQLITE_ERROR) {
      KLV_ERROR("Error calling sqlite3_step ({}: {}) SQLITE_ERROR", code, lastErrorMessage());
    } else if (code == SQLITE_MISUSE) {
      KLV_ERROR("Error calling sqlite3_step ({}: {}) SQLITE_MISUSE", code, lastErrorMessage());
    } else {
      KLV_ERROR("Unknown error calling sqlite3_step ({}: {}) eu", code, lastErrorMessage());
    }
  }
  const int closing = statement.close();
  if (closing != SQLITE_OK && logsErrors_) {
    KLV_ERROR("Unknown error finalizing or resetting statement ({}: {})", closing, lastErrorMessage());
  }
  return succeeded;
}

}  // namespace kelvo
