#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/DispatchQueue.h"
#include "storage/FMKLVDatabase.h"

namespace kelvo {

/// One connection that may be used from any thread, a block at a time. Closed when it dies.
class FMKLVDatabaseQueue {
 public:
  using Block = std::function<void(FMKLVDatabase&)>;
  static constexpr int kReadWriteAndCreate = 6;  ///< of sqlite3_open_v2

  /// nullptr, after the layer has logged why, when the database cannot be opened. Without a path it lives in memory.
  [[nodiscard]] static std::unique_ptr<FMKLVDatabaseQueue> databaseQueueWithPath(std::optional<std::string> path,
                                                                                 int flags = kReadWriteAndCreate);
  FMKLVDatabaseQueue(const FMKLVDatabaseQueue&) = delete;
  FMKLVDatabaseQueue& operator=(const FMKLVDatabaseQueue&) = delete;
  ~FMKLVDatabaseQueue();

  /// Runs `block` on the calling thread once the blocks before it are done; what it throws reaches the caller.
  /// A call from inside a block ends the process. A block whose connection was closed and cannot be opened again is
  /// left out.
  void inDatabase(const Block& block);
  /// Closes the connection; the next block opens it again.
  void close();

  [[nodiscard]] const std::optional<std::string>& path() const noexcept { return path_; }
  [[nodiscard]] int openFlags() const noexcept { return openFlags_; }

 private:
  FMKLVDatabaseQueue(std::optional<std::string> path, int flags);
  [[nodiscard]] FMKLVDatabase* database();

  std::optional<std::string> path_;
  int openFlags_;
  DispatchQueue queue_;
  std::unique_ptr<FMKLVDatabase> db_;  // touched on the queue only
};

}  // namespace kelvo
