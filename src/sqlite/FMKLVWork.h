#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "sqlite/FMKLVDatabase.h"

namespace kelvo {

/// Runs the blocks that a queue or a pool is given, on the connection it has for them.
class FMKLVWork {
 public:
  using Block = std::function<void(FMKLVDatabase& db)>;
  using DatabaseClass = std::function<std::unique_ptr<FMKLVDatabase>(std::optional<std::string> path)>;
  using TransactionBlock = std::function<void(FMKLVDatabase& db, bool& rollback)>;
  static constexpr int kReadWriteAndCreate = 6;  ///< of sqlite3_open_v2

  /// A transaction that `block` began is undone when it throws.
  static void perform(FMKLVDatabase& db, const Block& block);
  [[nodiscard]] static bool performInTransaction(FMKLVDatabase& db, FMKLVTransactions::Kind kind,
                                                 const TransactionBlock& block, FMKLVError* error);
  /// The savepoint is called "savePoint" and a number that no other of the process has.
  [[nodiscard]] static bool performInSavePoint(FMKLVDatabase& db, const TransactionBlock& block, FMKLVError* error);
};

}  // namespace kelvo
