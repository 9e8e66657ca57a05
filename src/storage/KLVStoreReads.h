#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo/Value.h"
#include "records/KLVStoredEvent.h"
#include "sqlite/FMKLVDatabaseQueue.h"
#include "storage/KLVSQLText.h"
#include "storage/KLVWaiting.h"

namespace kelvo {

/// The reading part of `KLVPersistantStore`, on the connection that the store opens. Thread-safe.
///
/// A read that fails writes a log line. It returns nullopt where its type is an optional, otherwise no rows or 0. While
/// the database is closed, reads return the same and write no line.
class KLVStoreReads {
 public:
  using Parameters = Dictionary;  ///< from column to value
  using Rows = std::vector<Dictionary>;

  [[nodiscard]] std::optional<bool> tableExists(std::string_view table);
  [[nodiscard]] std::vector<std::string> retrieveTableNames();
  /// Returns the number of rows. Reads the whole table.
  [[nodiscard]] int retrieveNumberOfRecordsInTable(std::string_view table);
  /// Returns the greatest "identifier" that an events table has or had, 0 if there was none or there is no table.
  [[nodiscard]] std::optional<std::uint64_t> lastIdentifierInTable(std::string_view table);
  /// Returns the greatest end of the session's chunks, 0 if it has none.
  [[nodiscard]] std::optional<std::uint64_t> endOfChunks(std::string_view sid);
  /// Counts what the service has not accepted.
  [[nodiscard]] std::optional<KLVWaiting> waiting(std::string_view currentSession);
  /// Returns the number of rows from `from` to `to`, both included, of an events table that chunks carry.
  [[nodiscard]] std::optional<std::int64_t> countForUpload(std::string_view table, std::uint64_t from,
                                                           std::uint64_t to);
  /// Returns the number of rows whose column `key` has this value.
  [[nodiscard]] std::optional<std::int64_t> countInTable(std::string_view table, std::string_view key,
                                                         std::string_view value);
  /// Returns the sum of `column` over the rows whose column `key` has this value, 0 if there is none.
  [[nodiscard]] std::optional<std::int64_t> sumInTable(std::string_view table, std::string_view column,
                                                       std::string_view key, std::string_view value);
  /// Returns the rows whose "identifier" is from `from` to `to`, both included, in ascending order. Given both `column`
  /// and `value`, returns only rows with that value.
  [[nodiscard]] std::optional<Rows> retrieveDataWithTableName(std::string_view table, std::uint64_t from,
                                                              std::uint64_t to,
                                                              const std::optional<std::string>& column,
                                                              const std::optional<std::string>& value);
  /// The same without an upper end.
  [[nodiscard]] Rows retrieveDataWithTableName(std::string_view table, int from,
                                               const std::optional<std::string>& column,
                                               const std::optional<std::string>& value);
  /// Calls `take` with each of the first `most` events from `from` to `to`, both included, of an events table, in
  /// ascending order. Returns their number. `take` must not call the store.
  [[nodiscard]] std::optional<std::uint64_t> readEvents(std::string_view table, std::uint64_t from, std::uint64_t to,
                                                        std::uint64_t most,
                                                        const std::function<void(const KLVStoredEvent&)>& take);
  /// Returns the rows whose column `key` has this value.
  [[nodiscard]] std::optional<Rows> retrieveDataWithTableName(std::string_view table, std::string_view key,
                                                              const Value& value);
  /// Returns one column of the rows that meet all conditions. Returns nothing if there is no condition.
  [[nodiscard]] std::optional<Rows> retrieveDataForIdentifier(std::string_view column, std::string_view table,
                                                              const Parameters& conditions);
  [[nodiscard]] std::optional<Rows> retrieveAllDataWithTableName(std::string_view table);
  /// Returns one row for each distinct value of the column `key`.
  [[nodiscard]] Rows retrieveSetOfValuesFromTable(std::string_view table, std::string_view key);
  [[nodiscard]] std::optional<Rows> rows(const KLVSQLText& sql);
  /// Returns the first row's only column, 0 if there is no row or it is NULL.
  [[nodiscard]] std::optional<std::int64_t> number(const KLVSQLText& sql);

  /// Runs `block` on the database's queue. Does nothing if the database is not open.
  void onDatabase(const FMKLVDatabaseQueue::Block& block);
  /// Returns false during a trial run of this thread: the rerun logs the failure. Jobs check it before they log one.
  [[nodiscard]] static bool reportsFailures() noexcept;

 protected:
  KLVStoreReads() = default;
  ~KLVStoreReads() = default;  // never deleted through this type

  std::atomic<FMKLVDatabaseQueue*> opened_{nullptr};  // the store's database, readable on any thread
  // Queue of the next two: the database's.
  std::set<std::string, std::less<>> tables_;  // known to exist
  /// The last identifier that each events table gave out, once read. Later inserts are not noted.
  std::optional<std::map<std::string, std::uint64_t, std::less<>>> sequences_;

 private:
  // Queue of all of these: the database's.
  [[nodiscard]] static std::optional<Rows> rows(FMKLVDatabase& db, const KLVSQLText& sql);
  [[nodiscard]] static std::optional<std::int64_t> number(FMKLVDatabase& db, const KLVSQLText& sql);
  [[nodiscard]] std::optional<bool> exists(FMKLVDatabase& db, std::string_view table);
  [[nodiscard]] bool readSequences(FMKLVDatabase& db);
  void noteCorruption(const FMKLVDatabase& db);

  bool foundCorrupt_ = false;
};

}  // namespace kelvo
