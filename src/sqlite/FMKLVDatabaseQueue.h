#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/DispatchQueue.h"
#include "sqlite/FMKLVWork.h"

namespace kelvo {

/// One connection that may be used from any thread, a block at a time. Closed when it dies.
///
/// A block runs on the calling thread once the blocks before it are done. What it throws reaches the caller; what it
/// had begun to change is rolled back then, and the queue goes on. A call from inside a block ends the process. No
/// block runs when the connection was closed and cannot be opened again, and the call gives false.
class FMKLVDatabaseQueue {
 public:
  using Block = FMKLVWork::Block;
  using TransactionBlock = FMKLVWork::TransactionBlock;
  using DatabaseClass = FMKLVWork::DatabaseClass;
  static constexpr int kReadWriteAndCreate = FMKLVWork::kReadWriteAndCreate;

  /// nullptr, after the layer has logged why, when the database cannot be opened. Without a path it lives in memory.
  /// `databaseClass` makes the connection.
  [[nodiscard]] static std::unique_ptr<FMKLVDatabaseQueue> databaseQueueWithPath(
      std::optional<std::string> path, int flags = kReadWriteAndCreate,
      const DatabaseClass& databaseClass = FMKLVDatabaseQueue::databaseClass());
  [[nodiscard]] static DatabaseClass databaseClass() { return &FMKLVDatabase::databaseWithPath; }
  FMKLVDatabaseQueue(const FMKLVDatabaseQueue&) = delete;
  FMKLVDatabaseQueue& operator=(const FMKLVDatabaseQueue&) = delete;
  ~FMKLVDatabaseQueue();

  /// Warns when the block leaves a result set open.
  bool inDatabase(const Block& block);

  /// Commits what the block did, or undoes it when the block sets its flag. False, with the reason in `error`, when it
  /// could not begin, and the block did not run, or could not be committed, and was undone.
  [[nodiscard]] bool beginTransaction(FMKLVTransactions::Kind kind, const TransactionBlock& block,
                                      FMKLVError* error = nullptr);
  /// No other connection reads or writes meanwhile (of a WAL database, none writes).
  [[nodiscard]] bool inTransaction(const TransactionBlock& block, FMKLVError* error = nullptr);
  /// Takes SQLite's locks only when a statement needs them.
  [[nodiscard]] bool inDeferredTransaction(const TransactionBlock& block, FMKLVError* error = nullptr);
  /// The same in a savepoint.
  [[nodiscard]] bool inSavePoint(const TransactionBlock& block, FMKLVError* error = nullptr);

  /// The connection, opened again when it was closed; nullptr when that fails. For use on the queue only.
  [[nodiscard]] FMKLVDatabase* database();
  /// Closes the connection; the next block opens it again.
  void close();

  [[nodiscard]] const std::optional<std::string>& path() const noexcept { return path_; }
  [[nodiscard]] int openFlags() const noexcept { return openFlags_; }

 private:
  FMKLVDatabaseQueue(std::optional<std::string> path, int flags, const DatabaseClass& databaseClass);
  [[nodiscard]] bool perform(const std::function<bool(FMKLVDatabase&)>& work, FMKLVError* error);

  std::optional<std::string> path_;
  int openFlags_;
  DispatchQueue queue_;
  std::unique_ptr<FMKLVDatabase> db_;  // touched on the queue only
};

}  // namespace kelvo
