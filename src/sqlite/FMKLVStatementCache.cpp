#include "sqlite/FMKLVStatementCache.h"

#include <algorithm>
#include <utility>

namespace kelvo {

void FMKLVStatementCache::setOn(bool on) {
  on_ = on;
  if (!on) clear();
}

std::shared_ptr<FMKLVStatement> FMKLVStatementCache::idleStatement(const std::string& sql) const {
  const auto found = statements_.find(sql);
  if (found == statements_.end()) return nullptr;
  const auto idle =
      std::find_if(found->second.begin(), found->second.end(), [](const auto& each) { return !each->inUse(); });
  return idle == found->second.end() ? nullptr : *idle;
}

void FMKLVStatementCache::add(const std::shared_ptr<FMKLVStatement>& statement, const std::string& sql) {
  if (statement->isCached()) return;
  statement->setCached(true);
  statements_[sql].push_back(statement);
}

void FMKLVStatementCache::clear() {
  for (const auto& [sql, statements] : std::exchange(statements_, {})) {
    for (const auto& statement : statements) {
      statement->setCached(false);
      if (!statement->inUse()) statement->close();
    }
  }
}

}  // namespace kelvo
