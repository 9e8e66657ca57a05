#include "sqlite/FMKLVResultSet.h"

#include <sqlite3.h>

#include <utility>

#include "sqlite/FMKLVDatabase.h"
#include "sqlite/FMKLVNames.h"
#include "util/KLVLogger.h"

namespace kelvo {

std::unique_ptr<FMKLVResultSet> FMKLVResultSet::resultSetWithStatement(std::shared_ptr<FMKLVStatement> statement,
                                                                       FMKLVDatabase& parentDB) {
  std::unique_ptr<FMKLVResultSet> resultSet(new FMKLVResultSet(std::move(statement), parentDB));
  parentDB.openResultSets_.push_back(resultSet.get());
  return resultSet;
}

FMKLVResultSet::FMKLVResultSet(std::shared_ptr<FMKLVStatement> statement, FMKLVDatabase& parentDB)
    : parentDB_(&parentDB), statement_(std::move(statement)), query_(statement_->query()) {
  statement_->setInUse(true);
}

bool FMKLVResultSet::nextWithError(FMKLVError* error) {
  sqlite3_stmt* row = statement_ ? statement_->statement() : nullptr;
  if (parentDB_ != nullptr) parentDB_->handle_.forgetFailure();
  const int code = row != nullptr ? sqlite3_step(row) : SQLITE_MISUSE;
  if (code == SQLITE_ROW) return true;
  if (code != SQLITE_DONE) {
    if (parentDB_ != nullptr) parentDB_->handle_.noteFailure(code);
    const FMKLVError failure =
        parentDB_ != nullptr ? parentDB_->lastError() : FMKLVError{"FMDatabase", code, "parentDB does not exist"};
    if (parentDB_ == nullptr || parentDB_->logsErrors()) {
      if (code == SQLITE_BUSY || code == SQLITE_LOCKED) {
        KLV_ERROR("Database busy");
      } else if (code == SQLITE_ERROR || code == SQLITE_MISUSE) {
        KLV_ERROR("Error calling sqlite3_step ({}: {}) rs", code, failure.message);
      } else {
        KLV_ERROR("Unknown error calling sqlite3_step ({}: {}) rs", code, failure.message);
      }
    }
    if (error != nullptr) *error = failure;
  }
  close();
  return false;
}

bool FMKLVResultSet::hasAnotherRow() const noexcept {
  return hasColumn(0);
}

void FMKLVResultSet::close() {
  if (const auto statement = std::exchange(statement_, nullptr)) statement->finish();
  if (auto* parent = std::exchange(parentDB_, nullptr)) parent->resultSetDidClose(*this);
}

int FMKLVResultSet::columnCount() const noexcept {
  return statement_ ? sqlite3_column_count(statement_->statement()) : 0;
}

int FMKLVResultSet::columnIndexForName(std::string_view name) const {
  if (columnNameToIndexMap_.empty()) {
    for (int index = 0; index < columnCount(); ++index) {
      columnNameToIndexMap_[lowerCased(columnNameForIndex(index))] = index;
    }
  }
  const auto found = columnNameToIndexMap_.find(lowerCased(name));
  if (found != columnNameToIndexMap_.end()) return found->second;
  KLV_WARN("Warning: I could not find the column named '{}'.", name);
  return -1;
}

std::string FMKLVResultSet::columnNameForIndex(int index) const {
  const char* name = statement_ ? sqlite3_column_name(statement_->statement(), index) : nullptr;
  return name != nullptr ? name : "";
}

}  // namespace kelvo
