#include "sqlite/FMKLVDatabaseQueue.h"

#include <fmt/format.h>

#include <utility>

#include "sqlite/FMKLVAssertion.h"
#include "util/KLVLogger.h"

namespace kelvo {

std::unique_ptr<FMKLVDatabaseQueue> FMKLVDatabaseQueue::databaseQueueWithPath(std::optional<std::string> path,
                                                                              int flags,
                                                                              const DatabaseClass& databaseClass) {
  std::unique_ptr<FMKLVDatabaseQueue> queue(new FMKLVDatabaseQueue(std::move(path), flags, databaseClass));
  if (queue->db_->openWithFlags(flags)) return queue;
  KLV_DEBUG("Could not create database queue for path {}", queue->path_);
  return nullptr;
}

FMKLVDatabaseQueue::FMKLVDatabaseQueue(std::optional<std::string> path, int flags, const DatabaseClass& databaseClass)
    : path_(std::move(path)),
      openFlags_(flags),
      queue_(fmt::format("fmdb.<FMKLVDatabaseQueue: {}>", fmt::ptr(this))),
      db_(databaseClass(path_)) {}

FMKLVDatabaseQueue::~FMKLVDatabaseQueue() {
  close();
}

FMKLVDatabase* FMKLVDatabaseQueue::database() {
  if (db_->isOpen() || db_->openWithFlags(openFlags_)) return db_.get();
  KLV_DEBUG("FMDatabaseQueue could not reopen database for path {}", path_);
  return nullptr;
}

bool FMKLVDatabaseQueue::perform(const std::function<bool(FMKLVDatabase&)>& work, FMKLVError* error) {
  if (queue_.isCurrent()) {
    assertionFailed(
        "currentSyncQueue != self && \"inDatabase: was called reentrantly on the same queue, which would lead to a "
        "deadlock\"");
  }
  return queue_.sync([&] {
    auto* db = database();
    if (db == nullptr) {
      if (error != nullptr) *error = db_->lastError();
      return false;
    }
    const bool done = work(*db);
    if (db->hasOpenResultSets()) {
      KLV_WARN("Warning: there is at least one open result set around after performing [FMDatabaseQueue inDatabase:]");
    }
    return done;
  });
}

bool FMKLVDatabaseQueue::inDatabase(const Block& block) {
  return perform(
      [&](FMKLVDatabase& db) {
        FMKLVWork::perform(db, block);
        return true;
      },
      nullptr);
}

bool FMKLVDatabaseQueue::beginTransaction(FMKLVTransactions::Kind kind, const TransactionBlock& block,
                                          FMKLVError* error) {
  return perform([&](FMKLVDatabase& db) { return FMKLVWork::performInTransaction(db, kind, block, error); }, error);
}

bool FMKLVDatabaseQueue::inTransaction(const TransactionBlock& block, FMKLVError* error) {
  return beginTransaction(FMKLVTransactions::Kind::exclusive, block, error);
}

bool FMKLVDatabaseQueue::inDeferredTransaction(const TransactionBlock& block, FMKLVError* error) {
  return beginTransaction(FMKLVTransactions::Kind::deferred, block, error);
}

bool FMKLVDatabaseQueue::inSavePoint(const TransactionBlock& block, FMKLVError* error) {
  return perform([&](FMKLVDatabase& db) { return FMKLVWork::performInSavePoint(db, block, error); }, error);
}

void FMKLVDatabaseQueue::close() {
  queue_.sync([&] { db_->close(); });
}

}  // namespace kelvo
