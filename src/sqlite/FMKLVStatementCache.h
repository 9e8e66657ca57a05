#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "sqlite/FMKLVStatement.h"

namespace kelvo {

/// The prepared statements that one connection keeps for reuse. It starts off and empty: then it only keeps those of
/// `FMKLVDatabase::updateKeepingStatement`.
///
/// The key is the exact SQL text. The size has no limit, so SQL texts that contain their values only fill the cache.
/// An idle statement holds no lock. SQLite prepares it again after a change of the schema.
/// While a result set uses a statement, a second use of the same text prepares another one.
class FMKLVStatementCache {
 public:
  using Statements = std::vector<std::shared_ptr<FMKLVStatement>>;

  FMKLVStatementCache() = default;
  FMKLVStatementCache(const FMKLVStatementCache&) = delete;
  FMKLVStatementCache& operator=(const FMKLVStatementCache&) = delete;

  [[nodiscard]] bool isOn() const noexcept { return on_; }
  /// Switching the cache off clears it.
  void setOn(bool on);

  /// Returns a statement that is not in use, or nullptr.
  [[nodiscard]] std::shared_ptr<FMKLVStatement> idleStatement(const std::string& sql) const;
  void add(const std::shared_ptr<FMKLVStatement>& statement, const std::string& sql);
  /// Removes all statements. It closes the idle ones; a statement in use closes when its user is finished.
  void clear();
  [[nodiscard]] const std::unordered_map<std::string, Statements>& statements() const noexcept { return statements_; }

 private:
  bool on_ = false;
  std::unordered_map<std::string, Statements> statements_;
};

}  // namespace kelvo
