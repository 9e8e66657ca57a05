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

/// Owns the one database file and is the only place where SQL text is written. It knows nothing of records:
/// dictionaries from column to value go in, rows come out as the same, without the columns that are NULL.
///
/// Any thread may call; statements run one at a time. No read reports failure: it gives no rows, or 0. A write that
/// fails is logged and gives false. When the database cannot be opened, all reads are empty and all writes fail.
///
/// A database that SQLite calls corrupt is set aside when it is opened, and a new one is begun. Corruption that
/// shows later leaves a marker beside the file, by which the next start sets it aside.
///
/// Kept: only inserts and the bound update pass values as parameters. Elsewhere they stand in the text between
/// single quotes, not escaped, so a value with a quote in it fails its statement.
class KLVPersistantStore final : public KLVPersistentStore {
 public:
  using Parameters = Dictionary;  ///< column to value
  using Rows = std::vector<Dictionary>;

  KLVPersistantStore();
  ~KLVPersistantStore();

  /// With a trailing slash.
  [[nodiscard]] static std::string dbDirectoryPath();
  static void createDBDirectory();
  [[nodiscard]] static std::string getDBPathForIdentifier(std::string_view component);
  [[nodiscard]] static std::string insertStatementWithTableName(std::string_view table, const Parameters& parameters);

  // --- Tables; true when it exists afterwards.
  bool createEventsTableWithTableName(std::string_view table);
  bool createChunkMetaInfoTableWithTableName(std::string_view table);
  bool createAggregateEventsTable();
  bool createLifetimeEventsTable();
  [[nodiscard]] bool removeTableWithName(std::string_view table);
  [[nodiscard]] std::vector<std::string> retrieveTableNames();

  // --- Reads.
  /// Counted by SQLite once for each table, which reads all of it, and kept up to date from then on.
  [[nodiscard]] int retrieveNumberOfRecordsInTable(std::string_view table);
  /// Rows whose "identifier" lies from `from` to `to`, both included, ascending; without a column or a value, all.
  [[nodiscard]] Rows retrieveDataWithTableName(std::string_view table, std::uint64_t from, std::uint64_t to,
                                               const std::optional<std::string>& column,
                                               const std::optional<std::string>& value);
  [[nodiscard]] Rows retrieveDataWithTableName(std::string_view table, int from,
                                               const std::optional<std::string>& column,
                                               const std::optional<std::string>& value);
  [[nodiscard]] Rows retrieveDataWithTableName(std::string_view table, std::string_view key, const Value& value);
  /// One column of the rows that meet all conditions; nothing without a condition.
  [[nodiscard]] Rows retrieveDataForIdentifier(std::string_view column, std::string_view table,
                                               const Parameters& conditions);
  [[nodiscard]] Rows retrieveAllDataWithTableName(std::string_view table);
  /// A row for every distinct value of the column.
  [[nodiscard]] Rows retrieveSetOfValuesFromTable(std::string_view table, std::string_view key);

  // --- Writes.
  [[nodiscard]] bool insertDataWithTableName(std::string_view table, const Parameters& parameters);
  /// Kept: writes the values bare into the text, so they must be numbers.
  [[nodiscard]] bool updateDataWithTableName(std::string_view table, const Parameters& values,
                                             const Parameters& conditions);
  /// Binds the values.
  [[nodiscard]] bool updateDataWithTableName(std::string_view table, const Parameters& values, std::string_view field,
                                             const Value& having);
  /// Only the row that counts an event without an attribute.
  [[nodiscard]] bool updateAggregateEventsCountRecordWithCount(int count, const Parameters& conditions);
  [[nodiscard]] bool removeDataWithTableName(std::string_view table, std::string_view field, const Value& having);

  // --- Groups of writes.

  /// A few calls of the store; false when one of them failed.
  using Job = std::function<bool(KLVPersistantStore&)>;

  /// Runs the jobs in order inside one transaction. When a statement fails, it is rolled back and the jobs run one by
  /// one, so that a failure costs its own job only, and is logged only then. A job that throws costs only itself,
  /// too, and is logged with the reason. What a start could not do, the disk being full or all descriptors in use, is
  /// tried again first: opening the database, and making its tables.
  void performGrouped(const std::vector<Job>& jobs);
  /// The same for jobs of which all must have their effect, or none: when one fails, none is run again.
  void performTogether(const std::vector<Job>& jobs);
  /// False while a group is tried whose failures come again one by one: a job then logs nothing of its own.
  [[nodiscard]] static bool reportsFailures() noexcept;
  /// How many groups were rolled back; whoever remembers what was read or written compares.
  [[nodiscard]] std::uint64_t rollbacks() const noexcept { return rollbacks_.load(); }

 private:
  class Transaction;

  [[nodiscard]] static std::unique_ptr<FMKLVDatabaseQueue> openDatabase(const std::string& path);
  [[nodiscard]] bool performInOneTransaction(const std::vector<Job>& jobs);
  void onDatabase(const FMKLVDatabaseQueue::Block& block);
  [[nodiscard]] bool onDatabase(bool (FMKLVDatabase::*operation)());
  [[nodiscard]] bool create(std::string_view table, std::string_view columns, bool failureIsError);
  [[nodiscard]] Rows rows(const std::string& sql);
  [[nodiscard]] bool write(const std::string& sql, const Parameters& parameters = {});
  [[nodiscard]] bool writeAndForgetCount(std::string_view table, const std::string& sql);
  /// Inside a block of the database's queue.
  [[nodiscard]] static bool update(FMKLVDatabase& db, const std::string& sql, const Parameters& parameters);
  void open();
  void openAndMakeTables();
  void rollBack();
  void noteCorruption(const FMKLVDatabase& db);

  std::unique_ptr<FMKLVDatabaseQueue> db_;
  std::atomic<FMKLVDatabaseQueue*> opened_{nullptr};  // `db_`, for any thread
  std::atomic<std::uint64_t> rollbacks_{0};
  // Touched on the database's queue only.
  bool foundCorrupt_ = false;
  std::map<std::string, int, std::less<>> recordCounts_;  // of the tables that were asked for

  /// One that could not be made so far. Touched by one thread at a time, like `performGrouped`.
  struct MissingTable {
    std::string name;
    std::string columns;
    bool failureIsError;
  };
  std::vector<MissingTable> missingTables_;
};

}  // namespace kelvo
