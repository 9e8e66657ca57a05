#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/DispatchQueue.h"
#include "platform/ThreadSafety.h"
#include "sqlite/FMKLVBlockRunner.h"

namespace kelvo {

class FMKLVDatabasePool;

/// The pool calls these on its lock queue when it opens a connection. An override may call the pool.
class FMKLVDatabasePoolDelegate {
 public:
  /// Returns whether the pool may keep the new, open connection. If not, the pool closes it and `db` returns nullptr.
  virtual bool databasePoolShouldAddDatabaseToPool(FMKLVDatabasePool&, FMKLVDatabase&) { return true; }
  virtual void databasePoolDidAddDatabase(FMKLVDatabasePool&, FMKLVDatabase&) noexcept {}

 protected:
  ~FMKLVDatabasePoolDelegate() = default;  // never deleted through this type
};

/// Opens connections to one database on demand and reuses them. Thread-safe.
///
/// A connection is checked out from `db` until `pushDatabaseBackInPool`; only one thread uses it meanwhile. Blocks of
/// several threads run at the same time. The pool checks out a connection for each block and always takes it back.
class FMKLVDatabasePool final : public FMKLVBlockRunner {
 public:
  using Connection = std::shared_ptr<FMKLVDatabase>;

  /// Opens no connection yet. Without a path, or with an empty path, every connection has its own database.
  explicit FMKLVDatabasePool(std::optional<std::string> path, int flags = kReadWriteAndCreate,
                             DatabaseClass databaseClass = FMKLVDatabasePool::databaseClass());
  [[nodiscard]] static std::unique_ptr<FMKLVDatabasePool> databasePoolWithPath(std::optional<std::string> path,
                                                                               int flags = kReadWriteAndCreate);

  /// The pool does not own `delegate`, which must outlive the pool or be replaced. nullptr removes it.
  void setDelegate(FMKLVDatabasePoolDelegate* delegate);
  /// Limits the number of connections. Default: 0, no limit.
  void setMaximumNumberOfDatabasesToCreate(std::uint64_t maximum);
  [[nodiscard]] std::uint64_t maximumNumberOfDatabasesToCreate();

  /// Checks out an open connection. Returns nullptr if the limit is reached, the connection cannot be opened, or the
  /// delegate refuses it.
  [[nodiscard]] Connection db();
  /// Checks a connection in. Logs an error if it is in the pool already. Ignores a connection that is not, or no
  /// longer, of this pool.
  void pushDatabaseBackInPool(const Connection& database);
  /// Runs `block` on the lock queue: no other thread checks a connection in or out meanwhile.
  void executeLocked(const std::function<void()>& block);

  [[nodiscard]] std::uint64_t countOfCheckedInDatabases();
  [[nodiscard]] std::uint64_t countOfCheckedOutDatabases();
  [[nodiscard]] std::uint64_t countOfOpenDatabases();
  /// Drops all connections. Those in the pool close now, the others when their users drop them.
  void releaseAllDatabases();

  [[nodiscard]] const std::optional<std::string>& path() const noexcept { return path_; }
  [[nodiscard]] int openFlags() const noexcept { return openFlags_; }

 private:
  [[nodiscard]] Connection takeFromPool() REQUIRES(lockQueue_);
  [[nodiscard]] Connection addToPool() REQUIRES(lockQueue_);
  [[nodiscard]] bool opens(FMKLVDatabase& database) const;
  [[nodiscard]] bool perform(const std::function<bool(FMKLVDatabase&)>& work, FMKLVError* error) override;

  const std::optional<std::string> path_;
  const int openFlags_;
  const DatabaseClass databaseClass_;
  DispatchQueue lockQueue_;
  std::vector<Connection> databaseInPool_ GUARDED_BY(lockQueue_);
  std::vector<Connection> databaseOutPool_ GUARDED_BY(lockQueue_);  // checked out
  FMKLVDatabasePoolDelegate* delegate_ GUARDED_BY(lockQueue_) = nullptr;
  std::uint64_t maximumNumberOfDatabasesToCreate_ GUARDED_BY(lockQueue_) = 0;
};

}  // namespace kelvo
