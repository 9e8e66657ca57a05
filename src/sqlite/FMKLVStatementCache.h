#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "sqlite/FMKLVStatement.h"

namespace kelvo {

/// The prepared statements that a connection keeps for the next use of the same text; off at first.
///
/// It knows a statement by its exact text and has no bound, so texts that hold their values fill it for nothing.
/// While a result set holds a statement, another use of its text prepares a second one.
class FMKLVStatementCache {
 public:
  using Statements = std::vector<std::shared_ptr<FMKLVStatement>>;

  [[nodiscard]] bool shouldCacheStatements() const noexcept { return shouldCacheStatements_; }
  /// Switching it off clears the cache.
  void setShouldCacheStatements(bool cache);

  /// One that is not in use; nullptr when there is none.
  [[nodiscard]] std::shared_ptr<FMKLVStatement> cachedStatementForQuery(const std::string& sql) const;
  void setCachedStatement(const std::shared_ptr<FMKLVStatement>& statement, const std::string& sql);
  /// Closes the statements, but those in use only when they are finished.
  void clearCachedStatements();
  [[nodiscard]] const std::unordered_map<std::string, Statements>& cachedStatements() const noexcept {
    return cachedStatements_;
  }

 protected:
  FMKLVStatementCache() = default;
  FMKLVStatementCache(const FMKLVStatementCache&) = delete;
  FMKLVStatementCache& operator=(const FMKLVStatementCache&) = delete;
  ~FMKLVStatementCache() = default;

 private:
  bool shouldCacheStatements_ = false;
  std::unordered_map<std::string, Statements> cachedStatements_;
};

}  // namespace kelvo
