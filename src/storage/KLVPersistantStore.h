#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo/Value.h"
#include "sqlite/FMKLVDatabaseQueue.h"
#include "storage/KLVJournalWrites.h"
#include "storage/KLVLedgerWrites.h"
#include "storage/KLVLifetimeWrites.h"
#include "storage/KLVPersistentStore.h"
#include "storage/KLVSQLText.h"
#include "storage/KLVStoreReads.h"

namespace kelvo {

/// Owns the database file and writes all SQL text. It knows no records: callers pass dictionaries from column to value,
/// and rows are returned as such dictionaries, without their NULL columns.
///
/// Thread-safe, except as noted below; statements run one at a time. A write that fails is logged and returns false. If
/// the database cannot be opened, every read returns nothing and every write fails.
///
/// If SQLite reports corruption at opening, the store sets the file aside under another name and creates a new
/// database. If it reports corruption later, the store writes a marker file, and the next start sets the database
/// aside.
///
/// Kept: only inserts and the bound update bind their values. All other statements contain them as text between single
/// quotes. `quoted` doubles the quotes in a value or has the statement refused: it then fails without being run.
class KLVPersistantStore final : public KLVPersistentStore, public KLVStoreReads {
 public:
  KLVPersistantStore();
  ~KLVPersistantStore();

  /// Returns the path of the database directory, with a trailing slash.
  [[nodiscard]] static std::string dbDirectoryPath();
  /// Returns the directory with the databases of all versions.
  [[nodiscard]] static std::string databaseRoot();
  static void createDBDirectory();
  /// Returns the path of a file in the database directory.
  [[nodiscard]] static std::string getDBPathForIdentifier(std::string_view component);
  /// Returns, and logs, an insert statement with one named parameter for each column.
  [[nodiscard]] static std::string insertStatementWithTableName(std::string_view table, const Parameters& parameters);

  // --- Tables. The create functions return true if the table exists afterwards. The store remembers tables that exist:
  // to create one again costs nothing.
  bool createEventsTableWithTableName(std::string_view table);
  // The next perform function retries a failure of these. Only one thread at a time may call them.
  bool createChunkMetaInfoTableWithTableName(std::string_view table);
  bool createAggregateEventsTable();
  bool createLifetimeEventsTable();
  void createOwnTables();                                          ///< and our index of the chunks
  [[nodiscard]] bool removeTableWithName(std::string_view table);  ///< returns true if it no longer exists

  // --- Writes.
  [[nodiscard]] bool insertDataWithTableName(std::string_view table, const Parameters& parameters);
  /// The same for an events table. If the store does not know it yet, and `mayCreate` returns true, creates it first.
  [[nodiscard]] bool insertEventWithTableName(std::string_view table, const Parameters& parameters,
                                              const std::function<bool()>& mayCreate);
  /// Kept: the statement contains the new values without quotes. It is refused unless they are numbers.
  [[nodiscard]] bool updateDataWithTableName(std::string_view table, const Parameters& values,
                                             const Parameters& conditions);
  /// The bound update. `isFrequent`: keeps the statement prepared, because it comes again with other values.
  [[nodiscard]] bool updateDataWithTableName(std::string_view table, const Parameters& values, std::string_view field,
                                             const Value& having, bool isFrequent = false);
  /// Sets the count of the row that has no attribute.
  [[nodiscard]] bool updateAggregateEventsCountRecordWithCount(int count, const Parameters& conditions);
  [[nodiscard]] bool removeDataWithTableName(std::string_view table, std::string_view field, const Value& having);
  [[nodiscard]] bool write(const KLVSQLText& sql, const Parameters& parameters = {}, bool isFrequent = false);
  /// Closes the database permanently. Blocks until the running operation of another thread has ended; every later one
  /// fails. Only one thread at a time may call this and the perform functions.
  void retire();
  /// Passes `report` whether the database is open and has all its tables. After false, it is called again, with true,
  /// by the perform function that achieves it. Only one thread at a time may call this and the perform functions.
  void whenReady(std::function<void(bool isReady)> report);

  // --- Groups of writes. Only one thread at a time may call the two perform functions. They first retry to open the
  // database and to create its tables if an earlier attempt failed (full disk, no free descriptor).

  /// Calls the store a few times. Returns false if one of the calls failed.
  using Job = std::function<bool(KLVPersistantStore&)>;

  /// Runs the jobs in order in one transaction. If one fails, rolls back and reruns the jobs one by one, so that only
  /// the bad one has no effect; the rerun logs the failure. A job that throws is logged and does not stop the others.
  void performGrouped(const std::vector<Job>& jobs);
  /// Runs the jobs in order in one transaction. Returns true if they are committed. If one fails, none has an effect.
  bool performTogether(const std::vector<Job>& jobs);
  // Each transaction writes these with its jobs. For jobs and the thread that runs them.
  [[nodiscard]] KLVLedgerWrites& ledger() noexcept { return ledger_; }
  [[nodiscard]] KLVLifetimeWrites& lifetimeCounts() noexcept { return lifetimeCounts_; }
  [[nodiscard]] KLVJournalWrites& journal() noexcept { return journal_; }
  /// Returns the number of rollbacks. If it has changed, a caller must forget the rows that it has cached.
  [[nodiscard]] std::uint64_t rollbacks() const noexcept { return rollbacks_.load(); }

 private:
  class Transaction;

  [[nodiscard]] static std::unique_ptr<FMKLVDatabaseQueue> openDatabase(const std::string& path);
  enum class Performed { committed, jobFailed, notCommitted };
  [[nodiscard]] Performed performInOneTransaction(const std::vector<Job>& jobs);
  /// Runs the job in a transaction of its own. What it has done until a failure is committed.
  void performAlone(const Job& job);
  void fail();  ///< the transaction cannot be committed
  [[nodiscard]] bool create(std::string_view table, std::string_view columns, bool failureIsError);
  [[nodiscard]] bool createAtStart(std::string_view table, std::string_view columns, bool failureIsError);
  // Queue of the next three: the database's.
  [[nodiscard]] bool create(FMKLVDatabase& db, std::string_view table, std::string_view columns, bool failureIsError);
  [[nodiscard]] static bool run(FMKLVDatabase& db, const KLVSQLText& sql, const Parameters& values, bool isFrequent);
  [[nodiscard]] static bool update(FMKLVDatabase& db, const KLVSQLText& sql, const Parameters& values, bool isFrequent);
  void open();
  void openAndMakeTables();
  [[nodiscard]] bool isReady() const { return db_ != nullptr && missingTables_.empty(); }
  void rollBack();

  std::atomic<std::uint64_t> rollbacks_{0};

  // Queue: the database's.
  KLVInsertText eventInsert_;
  // Used by one thread at a time: when the tables are created, and in the perform functions.
  struct MissingTable {
    std::string name;
    std::string_view columns;
    bool failureIsError;
  };
  std::unique_ptr<FMKLVDatabaseQueue> db_;
  KLVLedgerWrites ledger_;
  KLVLifetimeWrites lifetimeCounts_;
  KLVJournalWrites journal_;
  std::vector<MissingTable> missingTables_;  // could not be created so far
  std::vector<std::function<void(bool isReady)>> waitForReady_;
};

}  // namespace kelvo
