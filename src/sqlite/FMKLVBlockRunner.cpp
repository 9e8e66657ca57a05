#include "sqlite/FMKLVBlockRunner.h"

#include <fmt/format.h>

#include <atomic>

namespace kelvo {

bool FMKLVBlockRunner::inDatabase(const Block& block) {
  const auto work = [&](FMKLVDatabase& db) {
    const bool wasInTransaction = hasOpenTransaction(db.db());
    try {
      block(db);
    } catch (...) {
      if (!wasInTransaction && hasOpenTransaction(db.db())) db.rollback();
      throw;
    }
    return true;
  };
  return perform(work, nullptr);
}

bool FMKLVBlockRunner::beginTransaction(FMKLVDatabase::TransactionKind kind, const TransactionBlock& block,
                                        FMKLVError* error) {
  const auto work = [&](FMKLVDatabase& db) {
    return db.performTransaction(
        kind, [&](bool& rollback) { block(db, rollback); }, error);
  };
  return perform(work, error);
}

bool FMKLVBlockRunner::inTransaction(const TransactionBlock& block, FMKLVError* error) {
  return beginTransaction(FMKLVDatabase::TransactionKind::exclusive, block, error);
}

bool FMKLVBlockRunner::inDeferredTransaction(const TransactionBlock& block, FMKLVError* error) {
  return beginTransaction(FMKLVDatabase::TransactionKind::deferred, block, error);
}

bool FMKLVBlockRunner::inSavePoint(const TransactionBlock& block, FMKLVError* error) {
  static std::atomic<long> counter{0};
  const auto work = [&](FMKLVDatabase& db) {
    const auto name = fmt::format("savePoint{}", counter++);
    return db.performSavePoint(
        name, [&](bool& rollback) { block(db, rollback); }, error);
  };
  return perform(work, error);
}

}  // namespace kelvo
