#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/DispatchQueue.h"
#include "sqlite/FMKLVWork.h"

namespace kelvo {

class FMKLVDatabasePool;

/// Has a say in what a pool opens. Called on the pool's lock queue; may call the pool. Both are optional.
class FMKLVDatabasePoolDelegate {
 public:
  /// False: the new connection is closed, and whoever asked for one gets none.
  virtual bool databasePoolShouldAddDatabaseToPool(FMKLVDatabasePool&, FMKLVDatabase&) { return true; }
  virtual void databasePoolDidAddDatabase(FMKLVDatabasePool&, FMKLVDatabase&) noexcept {}

 protected:
  ~FMKLVDatabasePoolDelegate() = default;  // never deleted through this type
};

/// Connections to one database, opened as they are needed and kept for the next who needs one. Any thread may call.
///
/// A connection is out from `db` until `pushDatabaseBackInPool`, and is used by one thread at a time. The blocks run
/// on the calling thread, side by side, each with a connection that is taken for it and put back in any case. What a
/// block throws reaches the caller, and what it had begun to change is rolled back. No block runs when there is no
/// connection for it, and the call gives false.
class FMKLVDatabasePool {
 public:
  using Connection = std::shared_ptr<FMKLVDatabase>;
  using Block = FMKLVWork::Block;
  using TransactionBlock = FMKLVWork::TransactionBlock;
  using DatabaseClass = FMKLVWork::DatabaseClass;
  static constexpr int kReadWriteAndCreate = FMKLVWork::kReadWriteAndCreate;

  /// Opens nothing yet. Without a path, or with an empty one, every connection has a database of its own.
  explicit FMKLVDatabasePool(std::optional<std::string> path, int flags = kReadWriteAndCreate,
                             DatabaseClass databaseClass = FMKLVDatabasePool::databaseClass());
  [[nodiscard]] static std::unique_ptr<FMKLVDatabasePool> databasePoolWithPath(std::optional<std::string> path,
                                                                               int flags = kReadWriteAndCreate);
  [[nodiscard]] static DatabaseClass databaseClass() { return &FMKLVDatabase::databaseWithPath; }
  FMKLVDatabasePool(const FMKLVDatabasePool&) = delete;
  FMKLVDatabasePool& operator=(const FMKLVDatabasePool&) = delete;
  ~FMKLVDatabasePool() = default;

  /// `delegate` must live until the pool has died or has another; nullptr: none.
  void setDelegate(FMKLVDatabasePoolDelegate* delegate);
  /// How many connections there may be, in the pool and out of it; 0, as at first: any number.
  void setMaximumNumberOfDatabasesToCreate(std::uint64_t maximum);
  [[nodiscard]] std::uint64_t maximumNumberOfDatabasesToCreate();

  /// An open connection; nullptr when there are as many as there may be, when it cannot be opened, or when the
  /// delegate refuses it.
  [[nodiscard]] Connection db();
  /// Reports one that is in the pool already; lets go of one that is not the pool's, or no longer.
  void pushDatabaseBackInPool(const Connection& database);
  /// Runs `block` while no connection is taken or put back by another thread.
  void executeLocked(const std::function<void()>& block);

  [[nodiscard]] std::uint64_t countOfCheckedInDatabases();
  [[nodiscard]] std::uint64_t countOfCheckedOutDatabases();
  [[nodiscard]] std::uint64_t countOfOpenDatabases();
  /// Forgets all connections: those in the pool close now, those that are out when their users let go of them.
  void releaseAllDatabases();

  bool inDatabase(const Block& block);
  /// As those of `FMKLVDatabaseQueue`.
  [[nodiscard]] bool beginTransaction(FMKLVTransactions::Kind kind, const TransactionBlock& block,
                                      FMKLVError* error = nullptr);
  [[nodiscard]] bool inTransaction(const TransactionBlock& block, FMKLVError* error = nullptr);
  [[nodiscard]] bool inDeferredTransaction(const TransactionBlock& block, FMKLVError* error = nullptr);
  [[nodiscard]] bool inSavePoint(const TransactionBlock& block, FMKLVError* error = nullptr);

  [[nodiscard]] const std::optional<std::string>& path() const noexcept { return path_; }
  [[nodiscard]] int openFlags() const noexcept { return openFlags_; }

 private:
  [[nodiscard]] Connection takeFromPool();
  [[nodiscard]] Connection addToPool();
  [[nodiscard]] bool opens(FMKLVDatabase& database) const;
  [[nodiscard]] bool perform(const std::function<bool(FMKLVDatabase&)>& work, FMKLVError* error);

  const std::optional<std::string> path_;
  const int openFlags_;
  const DatabaseClass databaseClass_;
  DispatchQueue lockQueue_;  // the members below are touched on it only
  std::vector<Connection> databaseInPool_;
  std::vector<Connection> databaseOutPool_;
  FMKLVDatabasePoolDelegate* delegate_ = nullptr;
  std::uint64_t maximumNumberOfDatabasesToCreate_ = 0;
};

}  // namespace kelvo
