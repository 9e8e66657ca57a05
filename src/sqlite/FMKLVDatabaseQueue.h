#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/DispatchQueue.h"
#include "platform/ThreadSafety.h"
#include "sqlite/FMKLVBlockRunner.h"

namespace kelvo {

/// Shares one connection between threads: it runs one block at a time, in order. Thread-safe.
///
/// The destructor closes the connection. A block must not call its own queue: that aborts the process. `inDatabase`
/// logs a warning if the block leaves a result set open.
class FMKLVDatabaseQueue final : public FMKLVBlockRunner {
 public:
  /// Opens the database and returns its queue, or nullptr if the database cannot be opened. Without a path the
  /// database is in memory. `databaseClass` makes the connection.
  [[nodiscard]] static std::unique_ptr<FMKLVDatabaseQueue> databaseQueueWithPath(
      std::optional<std::string> path, int flags = kReadWriteAndCreate,
      const DatabaseClass& databaseClass = FMKLVDatabaseQueue::databaseClass());
  ~FMKLVDatabaseQueue();

  /// Returns the connection, reopened if it was closed; nullptr if that fails. Must be called inside a block.
  [[nodiscard]] FMKLVDatabase* database();
  /// Closes the connection. The next block reopens it.
  void close();
  /// Closes the connection permanently: later blocks do not run.
  void retire();

  [[nodiscard]] const std::optional<std::string>& path() const noexcept { return path_; }
  [[nodiscard]] int openFlags() const noexcept { return openFlags_; }

 private:
  FMKLVDatabaseQueue(std::optional<std::string> path, int flags, std::unique_ptr<FMKLVDatabase> db);
  [[nodiscard]] bool perform(const std::function<bool(FMKLVDatabase&)>& work, FMKLVError* error) override;

  const std::optional<std::string> path_;
  const int openFlags_;
  DispatchQueue queue_;
  const std::unique_ptr<FMKLVDatabase> db_ PT_GUARDED_BY(queue_);
  bool isRetired_ GUARDED_BY(queue_) = false;
};

}  // namespace kelvo
