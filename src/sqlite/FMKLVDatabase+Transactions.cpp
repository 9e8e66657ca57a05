#include <fmt/format.h>

#include <atomic>

#include "sqlite/FMKLVDatabase.h"
#include "sqlite/FMKLVNames.h"

namespace kelvo {

bool FMKLVDatabase::beginTransaction() {
  const bool begun = executeUpdate("begin exclusive transaction");
  if (begun) inTransaction_ = true;
  return begun;
}

bool FMKLVDatabase::beginDeferredTransaction() {
  const bool begun = executeUpdate("begin deferred transaction");
  if (begun) inTransaction_ = true;
  return begun;
}

bool FMKLVDatabase::commit() {
  const bool committed = executeUpdate("commit transaction");
  if (committed) inTransaction_ = false;
  return committed;
}

bool FMKLVDatabase::rollback() {
  // SQLite rolls back on its own after some failures, such as a full disk, and then refuses another rollback.
  const bool undoneAlready = inTransaction_ && isOpen() && !hasOpenTransaction(db());
  const bool undone = undoneAlready || executeUpdate("rollback transaction");
  if (undone || !hasOpenTransaction(db())) inTransaction_ = false;
  return undone;
}

bool FMKLVDatabase::startSavePointWithName(std::string_view name, FMKLVError* error) {
  return update(fmt::format("savepoint '{}';", FMDBEscapeSavePointName(name)), error);
}

bool FMKLVDatabase::releaseSavePointWithName(std::string_view name, FMKLVError* error) {
  return update(fmt::format("release savepoint '{}';", FMDBEscapeSavePointName(name)), error);
}

bool FMKLVDatabase::rollbackToSavePointWithName(std::string_view name, FMKLVError* error) {
  return update(fmt::format("rollback transaction to savepoint '{}';", FMDBEscapeSavePointName(name)), error);
}

bool FMKLVDatabase::performTransaction(TransactionKind kind, const Work& work, FMKLVError* error) {
  const bool begun = kind == TransactionKind::exclusive ? beginTransaction() : beginDeferredTransaction();
  bool undo = false;
  if (begun) {
    try {
      work(undo);
    } catch (...) {
      rollback();
      throw;
    }
    if (undo ? rollback() : commit()) return true;
  }
  const FMKLVError failure = lastError();
  if (begun && inTransaction_) rollback();
  handle_.keepFailure(failure);
  if (error != nullptr) *error = failure;
  return false;
}

bool FMKLVDatabase::inSavePoint(const Work& work, FMKLVError* error) {
  static std::atomic<long> counter{0};
  return performSavePoint(fmt::format("dbSavePoint{}", counter++), work, error);
}

bool FMKLVDatabase::performSavePoint(const std::string& name, const Work& work, FMKLVError* error) {
  const bool outermost = !hasOpenTransaction(db());
  if (!startSavePointWithName(name, error)) return false;
  bool undo = false;
  try {
    work(undo);
  } catch (...) {
    static_cast<void>(undoSavePoint(name, outermost, nullptr));
    throw;
  }
  if (undo) return undoSavePoint(name, outermost, error);
  if (releaseSavePointWithName(name, error)) return true;
  const FMKLVError failure = lastError();
  static_cast<void>(undoSavePoint(name, outermost, nullptr));
  handle_.keepFailure(failure);
  return false;
}

/// Rolls back to the savepoint and releases it. If that fails, an outermost savepoint is removed by a full rollback.
/// An inner savepoint then stays until the outer one ends.
bool FMKLVDatabase::undoSavePoint(const std::string& name, bool outermost, FMKLVError* error) {
  if (isOpen() && !hasOpenTransaction(db())) return true;  // SQLite has rolled back everything on its own
  FMKLVError failure;
  const bool undone = rollbackToSavePointWithName(name, &failure) && releaseSavePointWithName(name, &failure);
  if (undone) return true;
  if (outermost && hasOpenTransaction(db())) rollback();
  handle_.keepFailure(failure);
  if (error != nullptr) *error = failure;
  return false;
}

}  // namespace kelvo
