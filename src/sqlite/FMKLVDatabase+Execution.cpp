#include <sqlite3.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <utility>

#include "sqlite/FMKLVDatabase.h"
#include "sqlite/FMKLVFormat.h"
#include "util/KLVLogger.h"

namespace kelvo {

/// Stands while a statement is prepared and stepped; detects a connection that is used from two places at once.
class FMKLVDatabase::Execution {
 public:
  explicit Execution(FMKLVDatabase& database) : database_(database), entered_(database.isFree()) {
    if (entered_) database_.isExecutingStatement_ = true;
  }
  Execution(const Execution&) = delete;
  Execution& operator=(const Execution&) = delete;
  ~Execution() {
    if (entered_) database_.isExecutingStatement_ = false;
  }
  explicit operator bool() const noexcept { return entered_; }

 private:
  FMKLVDatabase& database_;
  bool entered_;
};

bool FMKLVDatabase::isFree() {
  forgetFailure();
  if (!databaseExists()) return false;
  if (!isExecutingStatement_) return true;
  KLV_ERROR("The FMDatabase {} is currently in use.", description());
  keepFailure({"FMDatabase", SQLITE_MISUSE, "The connection is currently in use"});
  return false;
}

std::shared_ptr<FMKLVStatement> FMKLVDatabase::prepare(const std::string& sql) {
  if (shouldCacheStatements()) {
    if (auto cached = cachedStatementForQuery(sql)) {
      cached->reset();
      return cached;
    }
  }
  sqlite3_stmt* handle = nullptr;
  const int code = sqlite3_prepare_v2(db_, sql.c_str(), -1, &handle, nullptr);
  if (code == SQLITE_OK) return std::make_shared<FMKLVStatement>(handle, sql);
  if (logsErrors_) {
    KLV_ERROR("DB Error: {} \"{}\"", lastErrorCode(), lastErrorMessage());
    KLV_ERROR("DB Query: {}", sql);
    KLV_ERROR("DB Path: {}", databasePath_);
  }
  if (crashOnErrors_) {
    KLVLogger::drain(std::chrono::seconds(1));  // the lines above say why
    std::abort();
  }
  return nullptr;
}

/// Finishes a statement that is short of values.
bool FMKLVDatabase::bind(FMKLVStatement& statement, const FMKLVArguments& arguments, Form form) {
  const int expected = statement.parameterCount();
  const int bound = statement.bindArguments(arguments, {traceExecution_, logsErrors_, dateFormat()});
  if (bound == expected) return true;
  reportBindCount(statement.query(), bound, expected, form);
  if (const int code = statement.bindCode(); code != SQLITE_OK) keepFailure({"FMDatabase", code, sqlite3_errstr(code)});
  statement.finish();
  return false;
}

void FMKLVDatabase::reportBindCount(const std::string& sql, int bound, int expected, Form form) {
  keepFailure({"FMDatabase", SQLITE_RANGE, "The bind count is not correct for the number of variables"});
  if (!logsErrors_) return;
  if (form == Form::query) {
    KLV_ERROR("Error: the bind count is not correct for the # of variables (executeQuery)");
  } else {
    KLV_ERROR("Error: the bind count ({}) is not correct for the # of variables in the query ({}) ({}) (executeUpdate)",
              bound, expected, sql);
  }
}

FMKLVDatabase::ResultSet FMKLVDatabase::queryWithArguments(const std::string& sql, const FMKLVArguments& arguments) {
  const Execution execution(*this);
  if (!execution) return nullptr;
  if (traceExecution_) KLV_DEBUG("{} executeQuery: {}", description(), sql);
  auto statement = prepare(sql);
  if (!statement || !bind(*statement, arguments, Form::query)) return nullptr;
  if (shouldCacheStatements()) setCachedStatement(statement, sql);
  statement->countUse();
  return FMKLVResultSet::resultSetWithStatement(std::move(statement), *this);
}

bool FMKLVDatabase::updateWithArguments(const std::string& sql, const FMKLVArguments& arguments, FMKLVError* error) {
  bool done = false;
  if (const Execution execution(*this); execution) {
    if (traceExecution_) KLV_DEBUG("{} executeUpdate: {}", description(), sql);
    const auto statement = prepare(sql);
    if (statement && bind(*statement, arguments, Form::update)) {
      if (shouldCacheStatements()) setCachedStatement(statement, sql);
      statement->countUse();
      done = step(*statement);
    }
  }
  if (!done && error != nullptr) *error = lastError();
  return done;
}

bool FMKLVDatabase::step(FMKLVStatement& statement) {
  statement.setInUse(true);
  const int code = statement.statement() != nullptr ? sqlite3_step(statement.statement()) : SQLITE_MISUSE;
  const bool succeeded = code == SQLITE_DONE || code == SQLITE_OK;
  if (!succeeded) {
    noteFailure(code);
    if (logsErrors_) {
      if (code == SQLITE_ERROR) {
        KLV_ERROR("Error calling sqlite3_step ({}: {}) SQLITE_ERROR", code, lastErrorMessage());
      } else if (code == SQLITE_MISUSE) {
        KLV_ERROR("Error calling sqlite3_step ({}: {}) SQLITE_MISUSE", code, lastErrorMessage());
      } else {
        KLV_ERROR("Unknown error calling sqlite3_step ({}: {}) eu", code, lastErrorMessage());
      }
    }
  }
  const int closing = statement.finish();
  if (closing != SQLITE_OK && logsErrors_) {
    KLV_ERROR("Unknown error finalizing or resetting statement ({}: {})", closing, lastErrorMessage());
  }
  return succeeded;
}

std::optional<std::string> FMKLVDatabase::textOfFormat(const std::string& format, const Array& values, Form form) {
  if (!isFree()) return std::nullopt;
  auto parsed = FMKLVFormat::parse(format);
  if (!parsed) {
    keepFailure({"FMDatabase", SQLITE_ERROR, "The format has an unknown item"});
    if (logsErrors_) KLV_ERROR("Error: the format has an unknown item: {}", format);
    return std::nullopt;
  }
  if (parsed->items == values.size()) return std::move(parsed->sql);
  reportBindCount(parsed->sql, static_cast<int>(values.size()), static_cast<int>(parsed->items), form);
  return std::nullopt;
}

FMKLVDatabase::ResultSet FMKLVDatabase::queryWithFormat(const std::string& format, const Array& values) {
  const auto sql = textOfFormat(format, values, Form::query);
  return sql ? queryWithArguments(*sql, values) : nullptr;
}

bool FMKLVDatabase::updateWithFormat(const std::string& format, const Array& values) {
  const auto sql = textOfFormat(format, values, Form::update);
  return sql && updateWithArguments(*sql, values, nullptr);
}

namespace {

struct Batch {
  const FMKLVDatabase::ResultBlock& block;
  std::exception_ptr thrown;

  /// SQLite is C: an exception must not pass through it.
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
  const int code = sqlite3_exec(db_, sql.c_str(), block ? &Batch::takeRow : nullptr, &batch, &message);
  const std::unique_ptr<char, decltype(&sqlite3_free)> owned(message, &sqlite3_free);
  if (batch.thrown) std::rethrow_exception(batch.thrown);
  if (code == SQLITE_OK) return true;
  noteFailure(code);
  if (logsErrors_) KLV_ERROR("Error inserting batch: {}", message != nullptr ? message : sqlite3_errstr(code));
  return false;
}

}  // namespace kelvo
