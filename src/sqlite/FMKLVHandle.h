#pragma once

#include <optional>
#include <string>

#include "platform/Clock.h"
#include "sqlite/FMKLVError.h"

struct sqlite3;

namespace kelvo {

/// The sqlite3 handle of one connection, its wait for locks, and the reason of its last failure.
///
/// Owner and thread: one `FMKLVDatabase`.
class FMKLVHandle {
 public:
  FMKLVHandle() = default;
  FMKLVHandle(const FMKLVHandle&) = delete;
  FMKLVHandle& operator=(const FMKLVHandle&) = delete;
  ~FMKLVHandle() { close(); }

  /// Opens a database. `flags` are those of sqlite3_open_v2; without flags it calls sqlite3_open. Logs a failure.
  [[nodiscard]] bool open(const char* path, std::optional<int> flags);
  /// Finalizes leaked statements and closes the handle. Logs a failure. A forked child only drops the handle: closing
  /// would write to the file that the parent still uses.
  void close();
  [[nodiscard]] bool isOpen() const noexcept { return handle_ != nullptr; }
  [[nodiscard]] sqlite3* get() const noexcept { return handle_; }  ///< nullptr while closed

  /// See `FMKLVDatabase::setMaxBusyRetryTimeInterval`.
  void setMaxBusyRetryTimeInterval(double seconds);
  [[nodiscard]] double maxBusyRetryTimeInterval() const noexcept { return maxBusyRetryTimeInterval_; }

  /// Drops a kept failure. Every call of the connection begins with this.
  void forgetFailure() noexcept { failure_.reset(); }
  /// Keeps the result code of a failed call of SQLite, unless the handle reports the same code on its own.
  void noteFailure(int code);
  /// Keeps a failure that SQLite does not know.
  void keepFailure(FMKLVError failure);
  /// Returns the kept failure, otherwise SQLite's own report. Empty and 0 while closed.
  [[nodiscard]] std::string message() const;
  [[nodiscard]] int code() const noexcept;

 private:
  static int busyHandler(void* handle, int count);

  sqlite3* handle_ = nullptr;
  double maxBusyRetryTimeInterval_ = 2.0;  // seconds
  Clock::Instant startBusyRetryTime_;
  std::optional<FMKLVError> failure_;
};

/// Returns whether SQLite has a transaction open on `handle`, also if a savepoint began it. False for nullptr.
[[nodiscard]] bool hasOpenTransaction(sqlite3* handle) noexcept;

}  // namespace kelvo
