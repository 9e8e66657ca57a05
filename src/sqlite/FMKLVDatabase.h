#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Clock.h"
#include "sqlite/FMKLVDatabaseAdditions.h"
#include "sqlite/FMKLVExecution.h"
#include "sqlite/FMKLVExtensions.h"
#include "sqlite/FMKLVStatementCache.h"
#include "sqlite/FMKLVTransactions.h"

struct sqlite3;

namespace kelvo {

/// One connection to a SQLite database: closed at first, open until `close` or its end.
///
/// A connection serves one thread at a time; `FMKLVDatabaseQueue` makes it safe from any, and `FMKLVDatabasePool`
/// gives each thread its own. Nothing throws but the caller's own blocks: a failure is logged, gives false, 0,
/// nullopt or nullptr, and stays readable until the next call.
///
/// Its concerns stand in a header each: the forms of execution, transactions, the statement cache, dates and
/// functions, conveniences.
class FMKLVDatabase : public FMKLVExecution,
                      public FMKLVTransactions,
                      public FMKLVStatementCache,
                      public FMKLVExtensions,
                      public FMKLVDatabaseAdditions {
 public:
  /// Without a path the database lives in memory; an empty path makes a temporary file.
  explicit FMKLVDatabase(std::optional<std::string> path);
  static std::unique_ptr<FMKLVDatabase> databaseWithPath(std::optional<std::string> path);
  virtual ~FMKLVDatabase();

  static std::string FMDBUserVersion();  ///< "2.5"
  static int FMDBVersion();              ///< 0x0250
  static std::string sqliteLibVersion();
  [[nodiscard]] static bool isSQLiteThreadSafe() noexcept;

  // --- Connection.

  /// True at once when it is open already.
  [[nodiscard]] bool open();
  /// `flags` are those of sqlite3_open_v2.
  [[nodiscard]] bool openWithFlags(int flags);
  /// Closes open result sets and statements that leaked, too. Always true.
  bool close();
  [[nodiscard]] bool isOpen() const noexcept { return db_ != nullptr; }
  /// Whether it is open and the file can be read as a database.
  [[nodiscard]] bool goodConnection();
  [[nodiscard]] const std::optional<std::string>& databasePath() const noexcept { return databasePath_; }
  /// What SQLite is given for a path.
  [[nodiscard]] const char* sqlitePath() const noexcept { return databasePath_ ? databasePath_->c_str() : ":memory:"; }
  [[nodiscard]] sqlite3* db() const noexcept { return db_; }  ///< null while closed
  [[nodiscard]] sqlite3* sqliteHandle() const noexcept { return db(); }
  [[nodiscard]] std::string description() const;  ///< `<FMKLVDatabase: 0x...>`

  /// How long, in seconds, a statement waits for another connection's lock; 2 at first, not at all with 0 or less.
  void setMaxBusyRetryTimeInterval(double seconds);
  [[nodiscard]] double maxBusyRetryTimeInterval() const noexcept { return maxBusyRetryTimeInterval_; }
  int busyRetryTimeout() const;           ///< obsolete: warns, and is -1
  void setBusyRetryTimeout(int timeout);  ///< obsolete: warns only

  /// Whether failures of statements are logged; true at first.
  void setLogsErrors(bool logsErrors) noexcept { logsErrors_ = logsErrors; }
  [[nodiscard]] bool logsErrors() const noexcept { return logsErrors_; }
  /// Whether a statement that does not parse ends the process; false at first.
  void setCrashOnErrors(bool crash) noexcept { crashOnErrors_ = crash; }
  [[nodiscard]] bool crashOnErrors() const noexcept { return crashOnErrors_; }
  /// Whether every statement and every value bound to it is logged at debug level; false at first.
  void setTraceExecution(bool trace) noexcept { traceExecution_ = trace; }
  [[nodiscard]] bool traceExecution() const noexcept { return traceExecution_; }
  /// Whether a pool has handed it out.
  void setCheckedOut(bool checkedOut) noexcept { checkedOut_ = checkedOut; }
  [[nodiscard]] bool checkedOut() const noexcept { return checkedOut_; }

  // --- Execution: executeQuery, executeUpdate and their forms come down to these.

  [[nodiscard]] ResultSet queryWithArguments(const std::string& sql, const FMKLVArguments& arguments) override;
  [[nodiscard]] bool updateWithArguments(const std::string& sql, const FMKLVArguments& arguments,
                                         FMKLVError* error) override;

  /// Is given each row as texts, or null values, by column name. Anything but 0 ends the run, which then gives false.
  using ResultBlock = std::function<int(const Dictionary& row)>;
  /// Runs any number of statements up to the first that fails.
  [[nodiscard]] bool executeStatements(const std::string& sql, const ResultBlock& block = {});

  // --- The last failure and the last change.

  [[nodiscard]] std::string lastErrorMessage() const;
  /// SQLite's result code of the last call, which is 0, 100 or 101 after a success.
  [[nodiscard]] int lastErrorCode() const noexcept;
  [[nodiscard]] bool hadError() const noexcept { return lastErrorCode() > 0 && lastErrorCode() < 100; }
  [[nodiscard]] FMKLVError lastError() const { return errorWithMessage(lastErrorMessage()); }
  [[nodiscard]] FMKLVError errorWithMessage(std::string message) const;
  [[nodiscard]] std::int64_t lastInsertRowId() const noexcept;
  /// Rows that the last insert, update or delete changed.
  [[nodiscard]] int changes() const noexcept;

  // --- Open result sets, known only as long as their owners keep them.

  [[nodiscard]] bool hasOpenResultSets() const noexcept { return !openResultSets_.empty(); }
  void closeOpenResultSets();
  void resultSetDidClose(FMKLVResultSet& resultSet);

 private:
  friend class FMKLVDatabaseAdditions;
  friend class FMKLVExtensions;
  friend class FMKLVResultSet;
  friend class FMKLVTransactions;
  enum class Form { query, update };
  class Execution;
  static int busyHandler(void* database, int count);

  [[nodiscard]] ResultSet queryWithFormat(const std::string& format, const Array& values) override;
  [[nodiscard]] bool updateWithFormat(const std::string& format, const Array& values) override;
  [[nodiscard]] bool databaseExists();
  [[nodiscard]] bool isFree();
  [[nodiscard]] bool adopt(sqlite3* handle, int code);
  void closeHandle();
  [[nodiscard]] std::shared_ptr<FMKLVStatement> prepare(const std::string& sql);
  [[nodiscard]] bool bind(FMKLVStatement& statement, const FMKLVArguments& arguments, Form form);
  [[nodiscard]] std::optional<std::string> textOfFormat(const std::string& format, const Array& values, Form form);
  void reportBindCount(const std::string& sql, int bound, int expected, Form form);
  [[nodiscard]] bool step(FMKLVStatement& statement);
  void forgetFailure() noexcept { failure_.reset(); }
  void noteFailure(int code);
  void keepFailure(FMKLVError failure) { failure_ = std::move(failure); }

  std::optional<std::string> databasePath_;
  bool logsErrors_ = true;
  bool crashOnErrors_ = false;
  bool traceExecution_ = false;
  bool checkedOut_ = false;
  bool isExecutingStatement_ = false;
  double maxBusyRetryTimeInterval_ = 2.0;
  Clock::Instant startBusyRetryTime_;
  std::vector<FMKLVResultSet*> openResultSets_;
  std::optional<FMKLVError> failure_;  // of the last call, when SQLite itself does not know it
  sqlite3* db_ = nullptr;
};

}  // namespace kelvo
