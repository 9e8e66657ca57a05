#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo/Value.h"
#include "sqlite/FMKLVDatabaseQueue.h"
#include "storage/KLVPersistentStore.h"

namespace kelvo {

/// Owns the database file and writes all SQL text. It knows no records: callers pass dictionaries from column to value,
/// and rows are returned as such dictionaries, without their NULL columns.
///
/// Thread-safe, except as noted below; statements run one at a time. A write that fails is logged and returns false. A
/// read that fails returns no rows, or 0. If the database cannot be opened, every read returns nothing and every write
/// fails.
///
/// If SQLite reports corruption at opening, the store sets the file aside under another name and creates a new
/// database. If it reports corruption later, the store writes a marker file, and the next start sets the database
/// aside.
///
/// Kept: only inserts and the bound update bind their values. All other statements contain them as text between single
/// quotes, not escaped, so a value with a quote makes its statement fail.
class KLVPersistantStore final : public KLVPersistentStore {
 public:
  using Parameters = Dictionary;  ///< from column to value
  using Rows = std::vector<Dictionary>;

  KLVPersistantStore();
  ~KLVPersistantStore();

  /// Returns the path of the database directory, with a trailing slash.
  [[nodiscard]] static std::string dbDirectoryPath();
  static void createDBDirectory();
  /// Returns the path of a file in the database directory.
  [[nodiscard]] static std::string getDBPathForIdentifier(std::string_view component);
  /// Returns, and logs, an insert statement with one named parameter for each column.
  [[nodiscard]] static std::string insertStatementWithTableName(std::string_view table, const Parameters& parameters);

  // --- Tables. The create functions return true if the table exists afterwards; the next group of writes retries a
  // failed one. Only one thread at a time may call them.
  bool createEventsTableWithTableName(std::string_view table);
  bool createChunkMetaInfoTableWithTableName(std::string_view table);
  bool createAggregateEventsTable();
  bool createLifetimeEventsTable();
  /// Returns true if the table no longer exists.
  [[nodiscard]] bool removeTableWithName(std::string_view table);
  [[nodiscard]] std::vector<std::string> retrieveTableNames();

  // --- Reads.
  /// Returns the number of rows. The first call for a table reads all of it; later calls return a count that the store
  /// keeps.
  [[nodiscard]] int retrieveNumberOfRecordsInTable(std::string_view table);
  /// Returns the rows whose "identifier" is from `from` to `to`, both included, in ascending order. Given both `column`
  /// and `value`, returns only rows with that value.
  [[nodiscard]] Rows retrieveDataWithTableName(std::string_view table, std::uint64_t from, std::uint64_t to,
                                               const std::optional<std::string>& column,
                                               const std::optional<std::string>& value);
  /// The same without an upper end.
  [[nodiscard]] Rows retrieveDataWithTableName(std::string_view table, int from,
                                               const std::optional<std::string>& column,
                                               const std::optional<std::string>& value);
  /// Returns the rows whose column `key` has this value.
  [[nodiscard]] Rows retrieveDataWithTableName(std::string_view table, std::string_view key, const Value& value);
  /// Returns one column of the rows that meet all conditions. Returns nothing if there is no condition.
  [[nodiscard]] Rows retrieveDataForIdentifier(std::string_view column, std::string_view table,
                                               const Parameters& conditions);
  [[nodiscard]] Rows retrieveAllDataWithTableName(std::string_view table);
  /// Returns one row for each distinct value of the column `key`.
  [[nodiscard]] Rows retrieveSetOfValuesFromTable(std::string_view table, std::string_view key);

  // --- Writes.
  [[nodiscard]] bool insertDataWithTableName(std::string_view table, const Parameters& parameters);
  /// Kept: the statement contains the values without quotes, so they must be numbers.
  [[nodiscard]] bool updateDataWithTableName(std::string_view table, const Parameters& values,
                                             const Parameters& conditions);
  /// The bound update.
  [[nodiscard]] bool updateDataWithTableName(std::string_view table, const Parameters& values, std::string_view field,
                                             const Value& having);
  /// Sets the count of the row that has no attribute.
  [[nodiscard]] bool updateAggregateEventsCountRecordWithCount(int count, const Parameters& conditions);
  [[nodiscard]] bool removeDataWithTableName(std::string_view table, std::string_view field, const Value& having);

  // --- Groups of writes. Only one thread at a time may call the two perform functions. They first retry to open the
  // database and to create its tables if an earlier attempt failed (full disk, no free descriptor).

  /// Calls the store a few times. Returns false if one of the calls failed.
  using Job = std::function<bool(KLVPersistantStore&)>;

  /// Runs the jobs in order in one transaction. If one fails, rolls back and reruns the jobs one by one, so that only
  /// the bad one has no effect; the rerun logs the failure. A job that throws is logged and does not stop the others.
  void performGrouped(const std::vector<Job>& jobs);
  /// Runs the jobs in order in one transaction. If one fails, rolls back: none has an effect.
  void performTogether(const std::vector<Job>& jobs);
  /// Returns false during a trial run: the rerun logs the failure. A job must check it before it logs a failure. Valid
  /// for the calling thread.
  [[nodiscard]] static bool reportsFailures() noexcept;
  /// Returns the number of rollbacks. If it has changed, a caller must forget the rows that it has cached.
  [[nodiscard]] std::uint64_t rollbacks() const noexcept { return rollbacks_.load(); }

 private:
  class Transaction;

  [[nodiscard]] static std::unique_ptr<FMKLVDatabaseQueue> openDatabase(const std::string& path);
  [[nodiscard]] bool performInOneTransaction(const std::vector<Job>& jobs);
  /// Runs `block` on the database's queue. Does nothing if the database is not open.
  void onDatabase(const FMKLVDatabaseQueue::Block& block);
  [[nodiscard]] bool create(std::string_view table, std::string_view columns, bool failureIsError);
  [[nodiscard]] Rows rows(const std::string& sql);
  [[nodiscard]] bool write(const std::string& sql, const Parameters& parameters = {});
  [[nodiscard]] bool writeAndForgetCount(std::string_view table, const std::string& sql);
  /// Queue: the database's.
  [[nodiscard]] static bool update(FMKLVDatabase& db, const std::string& sql, const Parameters& parameters);
  void open();
  void openAndMakeTables();
  void rollBack();
  /// Queue: the database's.
  void noteCorruption(const FMKLVDatabase& db);

  std::atomic<FMKLVDatabaseQueue*> opened_{nullptr};  // `db_`, readable on any thread
  std::atomic<std::uint64_t> rollbacks_{0};

  // Queue: the database's.
  bool foundCorrupt_ = false;
  std::map<std::string, int, std::less<>> recordCounts_;  // by table, once counted

  // Used by one thread at a time: when the tables are created, and in the perform functions.
  struct MissingTable {
    std::string name;
    std::string columns;
    bool failureIsError;
  };
  std::unique_ptr<FMKLVDatabaseQueue> db_;
  std::vector<MissingTable> missingTables_;  // could not be created so far
};

}  // namespace kelvo
