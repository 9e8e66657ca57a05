#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sqlite/FMKLVArguments.h"
#include "sqlite/FMKLVDateFormatter.h"
#include "sqlite/FMKLVError.h"
#include "sqlite/FMKLVHandle.h"
#include "sqlite/FMKLVResultSet.h"
#include "sqlite/FMKLVStatementCache.h"

namespace kelvo {

/// One connection to a SQLite database. It starts closed.
///
/// Not thread-safe: `FMKLVDatabaseQueue` shares one connection, and `FMKLVDatabasePool` gives each thread its own. Only
/// the caller's own blocks throw. A call that fails logs the reason, which `lastError` keeps until the next call, and
/// returns false, 0, nullopt or nullptr.
class FMKLVDatabase {
 public:
  /// Without a path the database is in memory. An empty path makes a temporary file.
  explicit FMKLVDatabase(std::optional<std::string> path);
  static std::unique_ptr<FMKLVDatabase> databaseWithPath(std::optional<std::string> path);
  virtual ~FMKLVDatabase();

  static std::string FMDBUserVersion();  ///< "2.5"
  static int FMDBVersion();              ///< 0x0250
  static std::string sqliteLibVersion();
  [[nodiscard]] static bool isSQLiteThreadSafe() noexcept;

  // --- Opening and closing.
  /// Both return true at once if the connection is open already. `flags` are those of sqlite3_open_v2.
  [[nodiscard]] bool open();
  [[nodiscard]] bool openWithFlags(int flags);
  bool close();  ///< also closes the open result sets and finalizes leaked statements; always returns true
  [[nodiscard]] bool isOpen() const noexcept { return handle_.isOpen(); }
  [[nodiscard]] bool goodConnection();  ///< whether it is open and SQLite can read the file as a database
  [[nodiscard]] const std::optional<std::string>& databasePath() const noexcept { return databasePath_; }
  [[nodiscard]] const char* sqlitePath() const noexcept { return databasePath_ ? databasePath_->c_str() : ":memory:"; }
  [[nodiscard]] sqlite3* db() const noexcept { return handle_.get(); }  ///< nullptr while closed
  [[nodiscard]] sqlite3* sqliteHandle() const noexcept { return db(); }
  [[nodiscard]] std::string description() const;  ///< `<FMKLVDatabase: 0x...>`

  // --- Settings.
  /// How many seconds a statement waits for another connection's lock. Default: 2. At 0 or less it does not wait.
  void setMaxBusyRetryTimeInterval(double seconds) { handle_.setMaxBusyRetryTimeInterval(seconds); }
  [[nodiscard]] double maxBusyRetryTimeInterval() const noexcept { return handle_.maxBusyRetryTimeInterval(); }
  int busyRetryTimeout() const;           ///< obsolete: logs a warning and returns -1
  void setBusyRetryTimeout(int timeout);  ///< obsolete: only logs a warning
  /// Whether failures of statements are logged. Default: true.
  void setLogsErrors(bool logsErrors) noexcept { logsErrors_ = logsErrors; }
  [[nodiscard]] bool logsErrors() const noexcept { return logsErrors_; }
  /// Whether a statement that SQLite cannot prepare aborts the process. Default: false.
  void setCrashOnErrors(bool crash) noexcept { crashOnErrors_ = crash; }
  [[nodiscard]] bool crashOnErrors() const noexcept { return crashOnErrors_; }
  /// Whether every statement and every bound value is logged at debug level. Default: false.
  void setTraceExecution(bool trace) noexcept { traceExecution_ = trace; }
  [[nodiscard]] bool traceExecution() const noexcept { return traceExecution_; }
  /// Whether a pool has handed the connection out.
  void setCheckedOut(bool checkedOut) noexcept { checkedOut_ = checkedOut; }
  [[nodiscard]] bool checkedOut() const noexcept { return checkedOut_; }

  // --- Execution. Only the first statement of `sql` runs. Every parameter needs a value (see `FMKLVArguments`).
  using ResultSet = std::unique_ptr<FMKLVResultSet>;
  [[nodiscard]] ResultSet executeQuery(const std::string& sql, const FMKLVBindable auto&... arguments);
  /// For statements without rows. The two forms with `error` also store a failure there, unless it is nullptr.
  [[nodiscard]] bool executeUpdate(const std::string& sql, const FMKLVBindable auto&... arguments);
  [[nodiscard]] bool executeUpdateWithErrorAndBindings(const std::string& sql, FMKLVError* error,
                                                       const FMKLVBindable auto&... arguments);
  [[nodiscard]] bool update(const std::string& sql, FMKLVError* error, const FMKLVBindable auto&... arguments);
  /// Every item of `format` becomes a parameter (see `FMKLVFormat`).
  [[nodiscard]] ResultSet executeQueryWithFormat(const std::string& format, const FMKLVBindable auto&... values);
  [[nodiscard]] bool executeUpdateWithFormat(const std::string& format, const FMKLVBindable auto&... values);
  [[nodiscard]] ResultSet queryWithArguments(const std::string& sql, const FMKLVArguments& arguments);
  [[nodiscard]] bool updateWithArguments(const std::string& sql, const FMKLVArguments& arguments, FMKLVError* error);
  /// The same, and adds the statement to the cache even if that is off: for a text that is used again and again.
  [[nodiscard]] bool updateKeepingStatement(const std::string& sql, const FMKLVArguments& arguments);
  /// Fails as a statement that SQLite cannot prepare, without running it: for a caller that mistrusts its own text.
  bool refuse(const std::string& sql, std::string reason);
  /// Receives a row by column name, as texts or null values. Returns 0 to continue; the run fails otherwise.
  using ResultBlock = std::function<int(const Dictionary& row)>;
  /// Runs all statements of `sql` up to the first failure.
  [[nodiscard]] bool executeStatements(const std::string& sql, const ResultBlock& block = {});

  // --- The first column of a query's first row. Without a row these return 0, false or nullopt.
  [[nodiscard]] int intForQuery(const std::string& sql, const FMKLVBindable auto&... values);
  [[nodiscard]] long longForQuery(const std::string& sql, const FMKLVBindable auto&... values);
  [[nodiscard]] bool boolForQuery(const std::string& sql, const FMKLVBindable auto&... values);
  [[nodiscard]] double doubleForQuery(const std::string& sql, const FMKLVBindable auto&... values);
  [[nodiscard]] std::optional<std::string> stringForQuery(const std::string& sql, const FMKLVBindable auto&... values);
  [[nodiscard]] std::optional<Data> dataForQuery(const std::string& sql, const FMKLVBindable auto&... values);
  [[nodiscard]] std::optional<Date> dateForQuery(const std::string& sql, const FMKLVBindable auto&... values);

  // --- The schema. Names are compared without regard to case.
  [[nodiscard]] bool tableExists(const std::string& tableName);
  [[nodiscard]] bool columnExists(const std::string& columnName, const std::string& tableName);
  /// Returns type, name, tbl_name, rootpage and sql of every table, index, view and trigger.
  [[nodiscard]] ResultSet getSchema();
  /// Returns cid, name, type, notnull, dflt_value and pk of every column.
  [[nodiscard]] ResultSet getTableSchema(const std::string& tableName);
  /// Two numbers that a database keeps for its application, 0 in a new database.
  [[nodiscard]] std::uint32_t applicationID();
  [[nodiscard]] bool setApplicationID(std::uint32_t applicationID);
  [[nodiscard]] std::uint32_t userVersion();
  [[nodiscard]] bool setUserVersion(std::uint32_t version);
  /// Returns whether SQLite can prepare `sql`, without running it. A failure is stored in `error` and not logged.
  [[nodiscard]] bool validateSQL(const std::string& sql, FMKLVError* error = nullptr);

  // --- Transactions and savepoints.
  enum class TransactionKind { exclusive, deferred };
  using Work = std::function<void(bool& rollback)>;
  [[nodiscard]] bool beginTransaction();  ///< exclusive
  [[nodiscard]] bool beginDeferredTransaction();
  [[nodiscard]] bool commit();
  bool rollback();  ///< also returns true if SQLite has rolled back on its own already
  /// True between a begin and the commit or rollback. Savepoints do not count.
  [[nodiscard]] bool inTransaction() const noexcept { return inTransaction_; }
  /// A name may contain any characters. Savepoints nest; a name means the innermost savepoint of that name.
  [[nodiscard]] bool startSavePointWithName(std::string_view name, FMKLVError* error = nullptr);
  [[nodiscard]] bool releaseSavePointWithName(std::string_view name, FMKLVError* error = nullptr);
  [[nodiscard]] bool rollbackToSavePointWithName(std::string_view name, FMKLVError* error = nullptr);  ///< keeps it
  /// The next three run `work`, then commit. They roll back if `work` asks for it, throws, or the commit fails.
  /// They return true after a commit or a requested rollback. If they cannot begin, they do not run `work`.
  [[nodiscard]] bool performTransaction(TransactionKind kind, const Work& work, FMKLVError* error = nullptr);
  [[nodiscard]] bool performSavePoint(const std::string& name, const Work& work, FMKLVError* error = nullptr);
  [[nodiscard]] bool inSavePoint(const Work& work, FMKLVError* error = nullptr);  ///< with a unique name

  // --- The last failure and the last change.
  [[nodiscard]] std::string lastErrorMessage() const { return handle_.message(); }
  /// Returns SQLite's result code of the last call, which is 0, 100 or 101 after a success.
  [[nodiscard]] int lastErrorCode() const noexcept { return handle_.code(); }
  [[nodiscard]] bool hadError() const noexcept;
  [[nodiscard]] FMKLVError lastError() const { return errorWithMessage(lastErrorMessage()); }
  [[nodiscard]] FMKLVError errorWithMessage(std::string message) const;
  [[nodiscard]] std::int64_t lastInsertRowId() const noexcept;
  [[nodiscard]] int changes() const noexcept;  ///< the number of rows that the last insert, update or delete changed

  // --- Dates, SQL functions and keys.
  [[nodiscard]] static FMKLVDateFormatter storeableDateFormat(std::string pattern);
  /// Dates are stored as text if there is a formatter, otherwise as seconds since 1970.
  void setDateFormat(std::optional<FMKLVDateFormatter> format);
  [[nodiscard]] bool hasDateFormatter() const noexcept { return dateFormat_.has_value(); }
  [[nodiscard]] std::optional<Date> dateFromString(const std::string& text) const;  ///< nullopt without formatter
  [[nodiscard]] std::optional<std::string> stringFromDate(Date date) const;         ///< nullopt without formatter
  using Function = std::function<Value(const Array& arguments)>;
  /// Defines or replaces a SQL function until the connection closes. A negative maximum allows any number of arguments.
  /// If `block` throws, the statement that called the function fails.
  [[nodiscard]] bool makeFunctionNamed(const std::string& name, int maximumArguments, Function block);
  /// Keys of an encrypted database. Plain SQLite does not encrypt, so these always fail.
  [[nodiscard]] bool setKey(const std::string& key);
  [[nodiscard]] bool setKeyWithData(const Data& key);
  [[nodiscard]] bool rekey(const std::string& key);
  [[nodiscard]] bool rekeyWithData(const Data& key);

  // --- The statement cache (see `FMKLVStatementCache`) and the open result sets.
  [[nodiscard]] bool shouldCacheStatements() const noexcept { return statementCache_.isOn(); }
  void setShouldCacheStatements(bool cache) { statementCache_.setOn(cache); }
  [[nodiscard]] std::shared_ptr<FMKLVStatement> cachedStatementForQuery(const std::string& sql) const;
  void setCachedStatement(const std::shared_ptr<FMKLVStatement>& statement, const std::string& sql);
  void clearCachedStatements() { statementCache_.clear(); }
  [[nodiscard]] const auto& cachedStatements() const noexcept { return statementCache_.statements(); }
  [[nodiscard]] bool hasOpenResultSets() const noexcept { return !openResultSets_.empty(); }
  void closeOpenResultSets();
  void resultSetDidClose(FMKLVResultSet& resultSet);

 private:
  friend class FMKLVResultSet;
  class Execution;
  struct CustomFunction;
  [[nodiscard]] bool databaseExists();
  [[nodiscard]] bool isFree();
  [[nodiscard]] ResultSet queryWithFormat(const std::string& format, const Array& values);
  [[nodiscard]] bool updateWithFormat(const std::string& format, const Array& values);
  [[nodiscard]] ResultSet firstRow(const std::string& sql, const FMKLVArguments& arguments);
  [[nodiscard]] bool undoSavePoint(const std::string& name, bool outermost, FMKLVError* error);
  [[nodiscard]] bool refuseKey();

  std::optional<std::string> databasePath_;
  bool logsErrors_ = true;
  bool crashOnErrors_ = false;
  bool traceExecution_ = false;
  bool checkedOut_ = false;
  bool isExecutingStatement_ = false;
  bool inTransaction_ = false;
  std::optional<FMKLVDateFormatter> dateFormat_;
  std::map<std::string, std::shared_ptr<CustomFunction>> openFunctions_;  // by lower-cased name
  FMKLVHandle handle_;
  FMKLVStatementCache statementCache_;
  std::vector<FMKLVResultSet*> openResultSets_;  // not owned; a result set removes itself when it closes
};

}  // namespace kelvo
#include "sqlite/FMKLVDatabase+Templates.h"
