#include "storage/FMKLVDatabaseQueue.h"

#include <fmt/format.h>

#include <utility>

#include "storage/FMKLVAssertion.h"
#include "util/KLVLogger.h"

namespace kelvo {

std::unique_ptr<FMKLVDatabaseQueue> FMKLVDatabaseQueue::databaseQueueWithPath(std::optional<std::string> path,
                                                                              int flags) {
  std::unique_ptr<FMKLVDatabaseQueue> queue(new FMKLVDatabaseQueue(std::move(path), flags));
  if (queue->db_->openWithFlags(flags)) return queue;
  KLV_DEBUG("Could not create database queue for path {}", queue->path_);
  return nullptr;
}

FMKLVDatabaseQueue::FMKLVDatabaseQueue(std::optional<std::string> path, int flags)
    : path_(std::move(path)),
      openFlags_(flags),
      queue_(fmt::format("fmdb.<FMKLVDatabaseQueue: {}>", fmt::ptr(this))),
      db_(FMKLVDatabase::databaseWithPath(path_)) {}

FMKLVDatabaseQueue::~FMKLVDatabaseQueue() {
  close();
}

FMKLVDatabase* FMKLVDatabaseQueue::database() {
  if (db_->isOpen() || db_->openWithFlags(openFlags_)) return db_.get();
  KLV_DEBUG("FMDatabaseQueue could not reopen database for path {}", path_);
  return nullptr;
}

void FMKLVDatabaseQueue::inDatabase(const Block& block) {
  if (queue_.isCurrent()) {
    assertionFailed(
        "currentSyncQueue != self && \"inDatabase: was called reentrantly on the same queue, which would lead to a "
        "deadlock\"");
  }
  queue_.sync([&] {
    auto* db = database();
    if (db == nullptr) return;
    block(*db);
    if (db->hasOpenResultSets()) {
      KLV_WARN("Warning: there is at least one open result set around after performing [FMDatabaseQueue inDatabase:]");
    }
  });
}

void FMKLVDatabaseQueue::close() {
  queue_.sync([&] { db_->close(); });
}

}  // namespace kelvo
