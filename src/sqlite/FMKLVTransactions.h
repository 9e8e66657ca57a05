#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "sqlite/FMKLVError.h"

namespace kelvo {

class FMKLVDatabase;

/// The transactions and savepoints of a connection.
///
/// What runs a block undoes the block's work when the block sets its flag `rollback`, when it throws, which then
/// reaches the caller, and when the work cannot be committed. It gives true when the work was committed, or undone
/// by the flag; false, with the reason in `error` and in the connection, when it could not begin, in which case the
/// block does not run, or could not be ended as it was to be.
class FMKLVTransactions {
 public:
  enum class Kind { exclusive, deferred };
  using Work = std::function<void(bool& rollback)>;

  [[nodiscard]] bool beginTransaction();
  [[nodiscard]] bool beginDeferredTransaction();
  [[nodiscard]] bool commit();
  /// True also when SQLite has rolled back on its own account already.
  bool rollback();
  /// Between a begin and the commit or rollback; savepoints do not count.
  [[nodiscard]] bool inTransaction() const noexcept { return inTransaction_; }

  /// Any name will do. Savepoints nest; of two with one name, the inner one is meant.
  [[nodiscard]] bool startSavePointWithName(std::string_view name, FMKLVError* error = nullptr);
  [[nodiscard]] bool releaseSavePointWithName(std::string_view name, FMKLVError* error = nullptr);
  /// The savepoint stays, until it is released.
  [[nodiscard]] bool rollbackToSavePointWithName(std::string_view name, FMKLVError* error = nullptr);
  /// Runs `work` in a savepoint of its own. May be nested.
  [[nodiscard]] bool inSavePoint(const Work& work, FMKLVError* error = nullptr);

 protected:
  FMKLVTransactions() = default;
  FMKLVTransactions(const FMKLVTransactions&) = delete;
  FMKLVTransactions& operator=(const FMKLVTransactions&) = delete;
  ~FMKLVTransactions() = default;

  void connectionDidClose() noexcept { inTransaction_ = false; }

 private:
  friend class FMKLVWork;
  [[nodiscard]] FMKLVDatabase& database() noexcept;
  /// Whether SQLite has a transaction open, be it begun by a savepoint.
  [[nodiscard]] bool isInside() noexcept;
  [[nodiscard]] bool perform(Kind kind, const Work& work, FMKLVError* error);
  [[nodiscard]] bool performInSavePoint(const std::string& name, const Work& work, FMKLVError* error);
  [[nodiscard]] bool undoSavePoint(const std::string& name, bool outermost, FMKLVError* error);
  bool run(const std::string& sql, FMKLVError* error);

  bool inTransaction_ = false;
};

}  // namespace kelvo
