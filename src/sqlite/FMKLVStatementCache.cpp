#include "sqlite/FMKLVStatementCache.h"

#include <algorithm>
#include <utility>

namespace kelvo {

void FMKLVStatementCache::setShouldCacheStatements(bool cache) {
  shouldCacheStatements_ = cache;
  if (!cache) clearCachedStatements();
}

std::shared_ptr<FMKLVStatement> FMKLVStatementCache::cachedStatementForQuery(const std::string& sql) const {
  const auto found = cachedStatements_.find(sql);
  if (found == cachedStatements_.end()) return nullptr;
  const auto idle =
      std::find_if(found->second.begin(), found->second.end(), [](const auto& each) { return !each->inUse(); });
  return idle == found->second.end() ? nullptr : *idle;
}

void FMKLVStatementCache::setCachedStatement(const std::shared_ptr<FMKLVStatement>& statement, const std::string& sql) {
  if (statement->isCached()) return;
  statement->setCached(true);
  cachedStatements_[sql].push_back(statement);
}

void FMKLVStatementCache::clearCachedStatements() {
  for (const auto& [sql, statements] : std::exchange(cachedStatements_, {})) {
    for (const auto& statement : statements) {
      statement->setCached(false);
      if (!statement->inUse()) statement->close();
    }
  }
}

}  // namespace kelvo
