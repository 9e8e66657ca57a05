#include <sqlite3.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <utility>

#include "sqlite/FMKLVDatabase.h"
#include "sqlite/FMKLVFormat.h"
#include "util/KLVLogger.h"

namespace kelvo {

/// Prepares, binds and steps one statement. While an execution exists, the connection refuses any other statement: a
/// second thread or a SQL function uses it by mistake.
class FMKLVDatabase::Execution {
 public:
  enum class Form { query, update };

  Execution(FMKLVDatabase& database, Form form, bool keepsStatement = false)
      : database_(database),
        form_(form),
        caches_(keepsStatement || database.shouldCacheStatements()),
        entered_(database.isFree()) {
    if (entered_) database_.isExecutingStatement_ = true;
  }
  Execution(const Execution&) = delete;
  Execution& operator=(const Execution&) = delete;
  ~Execution() {
    if (entered_) database_.isExecutingStatement_ = false;
  }

  /// Returns the statement with its arguments bound, or nullptr.
  [[nodiscard]] std::shared_ptr<FMKLVStatement> statement(const std::string& sql, const FMKLVArguments& arguments);
  /// Runs an update and finishes its statement.
  [[nodiscard]] bool step(FMKLVStatement& statement);

  /// Returns the SQL text of `format`, or nullopt if the format is wrong or does not match `values`.
  [[nodiscard]] static std::optional<std::string> textOfFormat(FMKLVDatabase& database, const std::string& format,
                                                               const Array& values, Form form);
  /// Reports a statement that was not prepared, for the connection's last failure.
  static void report(const FMKLVDatabase& database, const std::string& sql);

 private:
  [[nodiscard]] std::shared_ptr<FMKLVStatement> prepare(const std::string& sql);
  [[nodiscard]] bool bind(FMKLVStatement& statement, const FMKLVArguments& arguments);
  static void reportBindCount(FMKLVDatabase& database, const std::string& sql, int bound, int expected, Form form);

  FMKLVDatabase& database_;
  const Form form_;
  const bool caches_;
  const bool entered_;
};

bool FMKLVDatabase::databaseExists() {
  if (isOpen()) return true;
  KLV_ERROR("The FMDatabase {} is not open.", description());
  handle_.keepFailure({"FMDatabase", SQLITE_MISUSE, "The connection is not open"});
  return false;
}

/// Returns whether the connection is open and executes no statement. Forgets the last failure.
bool FMKLVDatabase::isFree() {
  handle_.forgetFailure();
  if (!databaseExists()) return false;
  if (!isExecutingStatement_) return true;
  KLV_ERROR("The FMDatabase {} is currently in use.", description());
  handle_.keepFailure({"FMDatabase", SQLITE_MISUSE, "The connection is currently in use"});
  return false;
}

std::shared_ptr<FMKLVStatement> FMKLVDatabase::Execution::statement(const std::string& sql,
                                                                    const FMKLVArguments& arguments) {
  if (!entered_) return nullptr;
  if (database_.traceExecution_) {
    if (form_ == Form::query) {
      KLV_DEBUG("{} executeQuery: {}", database_.description(), sql);
    } else {
      KLV_DEBUG("{} executeUpdate: {}", database_.description(), sql);
    }
  }
  auto prepared = prepare(sql);
  if (!prepared || !bind(*prepared, arguments)) return nullptr;
  if (caches_) database_.setCachedStatement(prepared, sql);
  prepared->countUse();
  return prepared;
}

std::shared_ptr<FMKLVStatement> FMKLVDatabase::Execution::prepare(const std::string& sql) {
  if (caches_) {
    if (auto cached = database_.cachedStatementForQuery(sql)) {
      cached->reset();
      return cached;
    }
  }
  sqlite3_stmt* handle = nullptr;
  const int code = sqlite3_prepare_v2(database_.db(), sql.c_str(), -1, &handle, nullptr);
  if (code == SQLITE_OK) return std::make_shared<FMKLVStatement>(handle, sql);
  report(database_, sql);
  return nullptr;
}

void FMKLVDatabase::Execution::report(const FMKLVDatabase& database, const std::string& sql) {
  if (database.logsErrors_) {
    KLV_ERROR("DB Error: {} \"{}\"", database.lastErrorCode(), database.lastErrorMessage());
    KLV_ERROR("DB Query: {}", KLVLogger::hostData(sql));
    KLV_ERROR("DB Path: {}", database.databasePath_);
  }
  if (database.crashOnErrors_) {
    KLVLogger::drain(std::chrono::seconds(1));  // writes the lines above
    std::abort();
  }
}

bool FMKLVDatabase::refuse(const std::string& sql, std::string reason) {
  if (!isFree()) return false;
  handle_.keepFailure({"FMDatabase", SQLITE_ERROR, std::move(reason)});
  Execution::report(*this, sql);
  return false;
}

/// Finishes the statement and returns false unless every parameter has a value.
bool FMKLVDatabase::Execution::bind(FMKLVStatement& statement, const FMKLVArguments& arguments) {
  const auto& format = database_.dateFormat_;
  const int expected = statement.parameterCount();
  const int bound = statement.bindArguments(
      arguments, {database_.traceExecution_, database_.logsErrors_, format ? &*format : nullptr});
  if (bound == expected) return true;
  reportBindCount(database_, statement.query(), bound, expected, form_);
  if (const int code = statement.bindCode(); code != SQLITE_OK) {
    database_.handle_.keepFailure({"FMDatabase", code, sqlite3_errstr(code)});
  }
  statement.finish();
  return false;
}

void FMKLVDatabase::Execution::reportBindCount(FMKLVDatabase& database, const std::string& sql, int bound, int expected,
                                               Form form) {
  database.handle_.keepFailure(
      {"FMDatabase", SQLITE_RANGE, "The bind count is not correct for the number of variables"});
  if (!database.logsErrors_) return;
  if (form == Form::query) {
    KLV_ERROR("Error: the bind count is not correct for the # of variables (executeQuery)");
  } else {
    KLV_ERROR("Error: the bind count ({}) is not correct for the # of variables in the query ({}) ({}) (executeUpdate)",
              bound, expected, KLVLogger::hostData(sql));
  }
}

bool FMKLVDatabase::Execution::step(FMKLVStatement& statement) {
  statement.setInUse(true);
  const int code = statement.statement() != nullptr ? sqlite3_step(statement.statement()) : SQLITE_MISUSE;
  const bool succeeded = code == SQLITE_DONE || code == SQLITE_OK;
  if (!succeeded) {
    database_.handle_.noteFailure(code);
    if (database_.logsErrors_) {
      if (code == SQLITE_ERROR) {
        KLV_ERROR("Error calling sqlite3_step ({}: {}) SQLITE_ERROR", code, database_.lastErrorMessage());
      } else if (code == SQLITE_MISUSE) {
        KLV_ERROR("Error calling sqlite3_step ({}: {}) SQLITE_MISUSE", code, database_.lastErrorMessage());
      } else {
        KLV_ERROR("Unknown error calling sqlite3_step ({}: {}) eu", code, database_.lastErrorMessage());
      }
    }
  }
  const int closing = statement.finish();
  if (closing != SQLITE_OK && database_.logsErrors_) {
    KLV_ERROR("Unknown error finalizing or resetting statement ({}: {})", closing, database_.lastErrorMessage());
  }
  return succeeded;
}

std::optional<std::string> FMKLVDatabase::Execution::textOfFormat(FMKLVDatabase& database, const std::string& format,
                                                                  const Array& values, Form form) {
  if (!database.isFree()) return std::nullopt;
  auto parsed = FMKLVFormat::parse(format);
  if (!parsed) {
    database.handle_.keepFailure({"FMDatabase", SQLITE_ERROR, "The format has an unknown item"});
    if (database.logsErrors_) KLV_ERROR("Error: the format has an unknown item: {}", KLVLogger::hostData(format));
    return std::nullopt;
  }
  if (parsed->items == values.size()) return std::move(parsed->sql);
  reportBindCount(database, parsed->sql, static_cast<int>(values.size()), static_cast<int>(parsed->items), form);
  return std::nullopt;
}

FMKLVDatabase::ResultSet FMKLVDatabase::queryWithArguments(const std::string& sql, const FMKLVArguments& arguments) {
  Execution execution(*this, Execution::Form::query);
  auto statement = execution.statement(sql, arguments);
  return statement ? FMKLVResultSet::resultSetWithStatement(std::move(statement), *this) : nullptr;
}

bool FMKLVDatabase::updateWithArguments(const std::string& sql, const FMKLVArguments& arguments, FMKLVError* error) {
  bool done = false;
  {
    Execution execution(*this, Execution::Form::update);
    const auto statement = execution.statement(sql, arguments);
    done = statement && execution.step(*statement);
  }
  if (!done && error != nullptr) *error = lastError();
  return done;
}

bool FMKLVDatabase::updateKeepingStatement(const std::string& sql, const FMKLVArguments& arguments) {
  Execution execution(*this, Execution::Form::update, true);
  const auto statement = execution.statement(sql, arguments);
  return statement && execution.step(*statement);
}

FMKLVDatabase::ResultSet FMKLVDatabase::queryWithFormat(const std::string& format, const Array& values) {
  const auto sql = Execution::textOfFormat(*this, format, values, Execution::Form::query);
  return sql ? queryWithArguments(*sql, values) : nullptr;
}

bool FMKLVDatabase::updateWithFormat(const std::string& format, const Array& values) {
  const auto sql = Execution::textOfFormat(*this, format, values, Execution::Form::update);
  return sql && updateWithArguments(*sql, values, nullptr);
}

namespace {

struct Batch {
  const FMKLVDatabase::ResultBlock& block;
  std::exception_ptr thrown;

  /// Catches exceptions, because they must not pass through SQLite, which is written in C.
  static int takeRow(void* batch, int count, char** texts, char** names) noexcept {
    auto& self = *static_cast<Batch*>(batch);
    try {
      Dictionary row;
      for (int column = 0; column < count; ++column) row.set(names[column], texts[column]);
      return self.block(row);
    } catch (...) {
      self.thrown = std::current_exception();
      return 1;
    }
  }
};

}  // namespace

bool FMKLVDatabase::executeStatements(const std::string& sql, const ResultBlock& block) {
  if (!isFree()) return false;
  Batch batch{block, nullptr};
  char* message = nullptr;
  const int code = sqlite3_exec(db(), sql.c_str(), block ? &Batch::takeRow : nullptr, &batch, &message);
  const std::unique_ptr<char, decltype(&sqlite3_free)> owned(message, &sqlite3_free);
  if (batch.thrown) std::rethrow_exception(batch.thrown);
  if (code == SQLITE_OK) return true;
  handle_.noteFailure(code);
  if (logsErrors_) KLV_ERROR("Error inserting batch: {}", message != nullptr ? message : sqlite3_errstr(code));
  return false;
}

}  // namespace kelvo
