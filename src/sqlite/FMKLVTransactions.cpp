#include "sqlite/FMKLVTransactions.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <atomic>

#include "sqlite/FMKLVNames.h"
#include "sqlite/FMKLVWork.h"

namespace kelvo {

FMKLVDatabase& FMKLVTransactions::database() noexcept {
  return static_cast<FMKLVDatabase&>(*this);
}

bool FMKLVTransactions::isInside() noexcept {
  sqlite3* handle = database().sqliteHandle();
  return handle != nullptr && sqlite3_get_autocommit(handle) == 0;
}

bool FMKLVTransactions::run(const std::string& sql, FMKLVError* error) {
  return database().updateWithArguments(sql, {}, error);
}

bool FMKLVTransactions::beginTransaction() {
  const bool begun = run("begin exclusive transaction", nullptr);
  if (begun) inTransaction_ = true;
  return begun;
}

bool FMKLVTransactions::beginDeferredTransaction() {
  const bool begun = run("begin deferred transaction", nullptr);
  if (begun) inTransaction_ = true;
  return begun;
}

bool FMKLVTransactions::commit() {
  const bool committed = run("commit transaction", nullptr);
  if (committed) inTransaction_ = false;
  return committed;
}

bool FMKLVTransactions::rollback() {
  // After a full disk, for one, SQLite has rolled back on its own and would refuse to do it again.
  const bool undoneAlready = inTransaction_ && database().isOpen() && !isInside();
  const bool undone = undoneAlready || run("rollback transaction", nullptr);
  if (undone || !isInside()) inTransaction_ = false;
  return undone;
}

bool FMKLVTransactions::startSavePointWithName(std::string_view name, FMKLVError* error) {
  return run(fmt::format("savepoint '{}';", FMDBEscapeSavePointName(name)), error);
}

bool FMKLVTransactions::releaseSavePointWithName(std::string_view name, FMKLVError* error) {
  return run(fmt::format("release savepoint '{}';", FMDBEscapeSavePointName(name)), error);
}

bool FMKLVTransactions::rollbackToSavePointWithName(std::string_view name, FMKLVError* error) {
  return run(fmt::format("rollback transaction to savepoint '{}';", FMDBEscapeSavePointName(name)), error);
}

bool FMKLVTransactions::inSavePoint(const Work& work, FMKLVError* error) {
  static std::atomic<long> counter{0};
  return performInSavePoint(fmt::format("dbSavePoint{}", counter++), work, error);
}

bool FMKLVTransactions::perform(Kind kind, const Work& work, FMKLVError* error) {
  const bool begun = kind == Kind::exclusive ? beginTransaction() : beginDeferredTransaction();
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
  const FMKLVError failure = database().lastError();
  if (begun && inTransaction_) rollback();
  database().keepFailure(failure);
  if (error != nullptr) *error = failure;
  return false;
}

bool FMKLVTransactions::performInSavePoint(const std::string& name, const Work& work, FMKLVError* error) {
  const bool outermost = !isInside();
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
  const FMKLVError failure = database().lastError();
  static_cast<void>(undoSavePoint(name, outermost, nullptr));
  database().keepFailure(failure);
  return false;
}

/// Leaves no savepoint behind even when the disk fails; but one inside of another ends with that one then.
bool FMKLVTransactions::undoSavePoint(const std::string& name, bool outermost, FMKLVError* error) {
  if (database().isOpen() && !isInside()) return true;  // SQLite has undone the whole transaction on its own account
  FMKLVError failure;
  const bool undone = rollbackToSavePointWithName(name, &failure) && releaseSavePointWithName(name, &failure);
  if (undone) return true;
  if (outermost && isInside()) rollback();
  database().keepFailure(failure);
  if (error != nullptr) *error = failure;
  return false;
}

void FMKLVWork::perform(FMKLVDatabase& db, const Block& block) {
  const bool wasInside = db.isInside();
  try {
    block(db);
  } catch (...) {
    if (!wasInside && db.isInside()) db.rollback();
    throw;
  }
}

bool FMKLVWork::performInTransaction(FMKLVDatabase& db, FMKLVTransactions::Kind kind, const TransactionBlock& block,
                                     FMKLVError* error) {
  return db.FMKLVTransactions::perform(
      kind, [&](bool& rollback) { block(db, rollback); }, error);
}

bool FMKLVWork::performInSavePoint(FMKLVDatabase& db, const TransactionBlock& block, FMKLVError* error) {
  static std::atomic<long> counter{0};
  const auto name = fmt::format("savePoint{}", counter++);
  return db.FMKLVTransactions::performInSavePoint(
      name, [&](bool& rollback) { block(db, rollback); }, error);
}

}  // namespace kelvo
