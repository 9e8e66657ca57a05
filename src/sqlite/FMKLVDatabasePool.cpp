#include "sqlite/FMKLVDatabasePool.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <algorithm>
#include <utility>

#include "util/KLVLogger.h"

namespace kelvo {

FMKLVDatabasePool::FMKLVDatabasePool(std::optional<std::string> path, int flags, DatabaseClass databaseClass)
    : path_(std::move(path)),
      openFlags_(flags),
      databaseClass_(std::move(databaseClass)),
      lockQueue_(fmt::format("fmdb.<FMKLVDatabasePool: {}>", fmt::ptr(this))) {}

std::unique_ptr<FMKLVDatabasePool> FMKLVDatabasePool::databasePoolWithPath(std::optional<std::string> path, int flags) {
  return std::make_unique<FMKLVDatabasePool>(std::move(path), flags);
}

void FMKLVDatabasePool::executeLocked(const std::function<void()>& block) {
  lockQueue_.sync(block);
}

void FMKLVDatabasePool::setDelegate(FMKLVDatabasePoolDelegate* delegate) {
  executeLocked([&] {
    lockQueue_.assertCurrent();
    delegate_ = delegate;
  });
}

void FMKLVDatabasePool::setMaximumNumberOfDatabasesToCreate(std::uint64_t maximum) {
  executeLocked([&] {
    lockQueue_.assertCurrent();
    maximumNumberOfDatabasesToCreate_ = maximum;
  });
}

std::uint64_t FMKLVDatabasePool::maximumNumberOfDatabasesToCreate() {
  return lockQueue_.sync([&] {
    lockQueue_.assertCurrent();
    return maximumNumberOfDatabasesToCreate_;
  });
}

FMKLVDatabasePool::Connection FMKLVDatabasePool::db() {
  return lockQueue_.sync([&] {
    lockQueue_.assertCurrent();
    auto database = databaseInPool_.empty() ? addToPool() : takeFromPool();
    if (database) database->setCheckedOut(true);
    return database;
  });
}

bool FMKLVDatabasePool::opens(FMKLVDatabase& database) const {
  if (database.openWithFlags(openFlags_)) return true;
  KLV_DEBUG("Could not open up the database at path {}", path_);
  return false;
}

FMKLVDatabasePool::Connection FMKLVDatabasePool::takeFromPool() {
  auto database = std::move(databaseInPool_.back());
  databaseInPool_.pop_back();
  if (!opens(*database)) return nullptr;  // the last user may have closed it
  databaseOutPool_.push_back(database);
  return database;
}

FMKLVDatabasePool::Connection FMKLVDatabasePool::addToPool() {
  const std::uint64_t maximum = maximumNumberOfDatabasesToCreate_;
  if (maximum != 0 && databaseOutPool_.size() >= maximum) {
    KLV_DEBUG("Maximum number of databases ({}) has already been reached!", countOfOpenDatabases());
    return nullptr;
  }
  Connection database = databaseClass_(path_);
  if (!opens(*database)) return nullptr;
  if (delegate_ != nullptr && !delegate_->databasePoolShouldAddDatabaseToPool(*this, *database)) {
    database->close();
    return nullptr;
  }
  databaseOutPool_.push_back(database);
  if (delegate_ != nullptr) delegate_->databasePoolDidAddDatabase(*this, *database);
  return database;
}

void FMKLVDatabasePool::pushDatabaseBackInPool(const Connection& database) {
  if (!database) return;
  executeLocked([&] {
    lockQueue_.assertCurrent();
    if (std::find(databaseInPool_.begin(), databaseInPool_.end(), database) != databaseInPool_.end()) {
      KLV_ERROR("Database already in pool: The FMDatabase being put back into the pool is already present in the pool");
      return;
    }
    const auto out = std::find(databaseOutPool_.begin(), databaseOutPool_.end(), database);
    if (out == databaseOutPool_.end()) {
      KLV_DEBUG("The FMDatabase {} is not, or no longer, of this pool", database->description());
      return;
    }
    databaseOutPool_.erase(out);
    database->setCheckedOut(false);
    databaseInPool_.push_back(database);
  });
}

std::uint64_t FMKLVDatabasePool::countOfCheckedInDatabases() {
  return lockQueue_.sync([&] {
    lockQueue_.assertCurrent();
    return databaseInPool_.size();
  });
}

std::uint64_t FMKLVDatabasePool::countOfCheckedOutDatabases() {
  return lockQueue_.sync([&] {
    lockQueue_.assertCurrent();
    return databaseOutPool_.size();
  });
}

std::uint64_t FMKLVDatabasePool::countOfOpenDatabases() {
  return lockQueue_.sync([&] {
    lockQueue_.assertCurrent();
    return databaseInPool_.size() + databaseOutPool_.size();
  });
}

void FMKLVDatabasePool::releaseAllDatabases() {
  executeLocked([&] {
    lockQueue_.assertCurrent();
    databaseInPool_.clear();
    databaseOutPool_.clear();
  });
}

bool FMKLVDatabasePool::perform(const std::function<bool(FMKLVDatabase&)>& work, FMKLVError* error) {
  struct Taken {
    FMKLVDatabasePool& pool;
    Connection database;
    ~Taken() { pool.pushDatabaseBackInPool(database); }
  } const taken{*this, db()};
  if (taken.database) return work(*taken.database);
  if (error != nullptr) *error = {"FMDatabase", SQLITE_CANTOPEN, "The pool has no connection to give"};
  return false;
}

}  // namespace kelvo
