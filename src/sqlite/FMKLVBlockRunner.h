#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "sqlite/FMKLVDatabase.h"

namespace kelvo {

/// Runs blocks on a connection. The base class of `FMKLVDatabaseQueue` and `FMKLVDatabasePool`.
///
/// A block runs on the calling thread. If it throws, a transaction that it began is rolled back, and the caller
/// receives the exception. Without a usable connection the block does not run, and the call returns false.
class FMKLVBlockRunner {
 public:
  using Block = std::function<void(FMKLVDatabase& db)>;
  using TransactionBlock = std::function<void(FMKLVDatabase& db, bool& rollback)>;
  /// Makes a closed connection.
  using DatabaseClass = std::function<std::unique_ptr<FMKLVDatabase>(std::optional<std::string> path)>;
  static constexpr int kReadWriteAndCreate = 6;  ///< flags of sqlite3_open_v2

  [[nodiscard]] static DatabaseClass databaseClass() { return &FMKLVDatabase::databaseWithPath; }

  bool inDatabase(const Block& block);

  /// The next four run `block`, then commit. They roll back if `block` asks for it, throws, or the commit fails.
  /// They return true after a commit or a requested rollback, otherwise false with the reason in `error`.
  [[nodiscard]] bool beginTransaction(FMKLVDatabase::TransactionKind kind, const TransactionBlock& block,
                                      FMKLVError* error = nullptr);
  /// Exclusive: no other connection reads or writes meanwhile. In a WAL database, others may still read.
  [[nodiscard]] bool inTransaction(const TransactionBlock& block, FMKLVError* error = nullptr);
  /// Deferred: SQLite takes its locks only when a statement needs them.
  [[nodiscard]] bool inDeferredTransaction(const TransactionBlock& block, FMKLVError* error = nullptr);
  /// Uses a savepoint in place of a transaction.
  [[nodiscard]] bool inSavePoint(const TransactionBlock& block, FMKLVError* error = nullptr);

 protected:
  FMKLVBlockRunner() = default;
  FMKLVBlockRunner(const FMKLVBlockRunner&) = delete;
  FMKLVBlockRunner& operator=(const FMKLVBlockRunner&) = delete;
  ~FMKLVBlockRunner() = default;  // never deleted through this type

 private:
  /// Calls `work` with an open connection and returns its result. Without a connection, returns false and stores the
  /// reason in `error` unless that is nullptr.
  [[nodiscard]] virtual bool perform(const std::function<bool(FMKLVDatabase&)>& work, FMKLVError* error) = 0;
};

}  // namespace kelvo
