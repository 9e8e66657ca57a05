#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelvo/Value.h"
#include "platform/Clock.h"
#include "storage/FMKLVError.h"
#include "storage/FMKLVResultSet.h"

struct sqlite3;

namespace kelvo {

/// One connection to a SQLite database: closed at first, open until `close` or its end.
///
/// A connection serves one thread at a time; `FMKLVDatabaseQueue` makes it safe from any. Nothing throws: a
/// failure is logged, gives false, 0 or nullptr, and stays readable until the next call.
class FMKLVDatabase {
 public:
  /// Without a path the database lives in memory; an empty path makes a temporary file.
  explicit FMKLVDatabase(std::optional<std::string> path);
  static std::unique_ptr<FMKLVDatabase> databaseWithPath(std::optional<std::string> path);
  FMKLVDatabase(const FMKLVDatabase&) = delete;
  FMKLVDatabase& operator=(const FMKLVDatabase&) = delete;
  ~FMKLVDatabase();

  [[nodiscard]] static bool isSQLiteThreadSafe() noexcept;

  // --- Connection.

  /// True at once when it is open already.
  [[nodiscard]] bool open();
  /// `flags` are those of sqlite3_open_v2.
  [[nodiscard]] bool openWithFlags(int flags);
  /// Closes open result sets and statements that leaked, too. Always true.
  bool close();
  [[nodiscard]] bool isOpen() const noexcept { return db_ != nullptr; }
  [[nodiscard]] const std::optional<std::string>& databasePath() const noexcept { return databasePath_; }
  /// Null while closed.
  [[nodiscard]] sqlite3* sqliteHandle() const noexcept { return db_; }
  /// `<FMKLVDatabase: 0x...>`
  [[nodiscard]] std::string description() const;

  /// How long, in seconds, a statement waits for another connection's lock; 2 at first, not at all with 0 or less.
  void setMaxBusyRetryTimeInterval(double seconds);
  [[nodiscard]] double maxBusyRetryTimeInterval() const noexcept { return maxBusyRetryTimeInterval_; }

  /// Whether failures of statements are logged; true at first.
  void setLogsErrors(bool logsErrors) noexcept { logsErrors_ = logsErrors; }
  [[nodiscard]] bool logsErrors() const noexcept { return logsErrors_; }
  /// Whether a statement that does not parse ends the process; false at first.
  void setCrashOnErrors(bool crash) noexcept { crashOnErrors_ = crash; }
  /// Whether every statement and every value bound to it is logged at debug level; false at first.
  void setTraceExecution(bool trace) noexcept { traceExecution_ = trace; }

  // --- Execution. An array fills the parameters in order; a dictionary those named ":key". Every parameter needs a
  // value.

  /// The rows, or nullptr. Closed at the latest when this connection closes.
  [[nodiscard]] std::unique_ptr<FMKLVResultSet> executeQuery(const std::string& sql, const Array& arguments = {});
  [[nodiscard]] std::unique_ptr<FMKLVResultSet> executeQuery(const std::string& sql, const Dictionary& parameters);
  /// For statements that give no rows.
  [[nodiscard]] bool executeUpdate(const std::string& sql, const Array& arguments = {});
  [[nodiscard]] bool executeUpdate(const std::string& sql, const Dictionary& parameters);
  /// The first column of the first row, clamped to 32 bits; 0 without a row.
  [[nodiscard]] int intForQuery(const std::string& sql, const Array& arguments = {});

  // --- The last failure.

  [[nodiscard]] std::string lastErrorMessage() const;
  /// SQLite's result code of the last call, which is 0, 100 or 101 after a success.
  [[nodiscard]] int lastErrorCode() const noexcept;
  [[nodiscard]] FMKLVError lastError() const { return errorWithMessage(lastErrorMessage()); }
  [[nodiscard]] FMKLVError errorWithMessage(std::string message) const;

  // --- Transactions.

  [[nodiscard]] bool beginTransaction();
  [[nodiscard]] bool beginDeferredTransaction();
  [[nodiscard]] bool commit();
  /// True also when SQLite has rolled back on its own account already.
  bool rollback();
  [[nodiscard]] bool inTransaction() const noexcept { return inTransaction_; }

  // --- Open result sets, known only as long as their owners keep them.

  [[nodiscard]] bool hasOpenResultSets() const noexcept { return !openResultSets_.empty(); }
  void closeOpenResultSets();
  void resultSetDidClose(FMKLVResultSet& resultSet);

 private:
  enum class Form { query, update };
  class Execution;
  static int busyHandler(void* database, int count);

  [[nodiscard]] bool databaseExists() const;
  [[nodiscard]] bool adopt(sqlite3* handle, int code);
  [[nodiscard]] std::unique_ptr<FMKLVStatement> prepare(const std::string& sql, const Value& arguments, Form form);
  [[nodiscard]] std::unique_ptr<FMKLVResultSet> query(const std::string& sql, const Value& arguments);
  [[nodiscard]] bool update(const std::string& sql, const Value& arguments);
  [[nodiscard]] bool step(FMKLVStatement& statement);

  std::optional<std::string> databasePath_;
  bool logsErrors_ = true;
  bool crashOnErrors_ = false;
  bool traceExecution_ = false;
  bool isExecutingStatement_ = false;
  bool inTransaction_ = false;
  double maxBusyRetryTimeInterval_ = 2.0;
  Clock::Instant startBusyRetryTime_;
  std::vector<FMKLVResultSet*> openResultSets_;
  sqlite3* db_ = nullptr;
};

}  // namespace kelvo
