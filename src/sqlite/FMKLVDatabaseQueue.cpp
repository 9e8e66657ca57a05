#include "sqlite/FMKLVDatabaseQueue.h"

#include <fmt/format.h>

#include <utility>

#include "sqlite/FMKLVAssertion.h"
#include "util/KLVLogger.h"

namespace kelvo {

std::unique_ptr<FMKLVDatabaseQueue> FMKLVDatabaseQueue::databaseQueueWithPath(std::optional<std::string> path,
                                                                              int flags,
                                                                              const DatabaseClass& databaseClass) {
  auto db = databaseClass(path);
  if (!db->openWithFlags(flags)) {
    KLV_DEBUG("Could not create database queue for path {}", path);
    return nullptr;
  }
  return std::unique_ptr<FMKLVDatabaseQueue>(new FMKLVDatabaseQueue(std::move(path), flags, std::move(db)));
}

FMKLVDatabaseQueue::FMKLVDatabaseQueue(std::optional<std::string> path, int flags, std::unique_ptr<FMKLVDatabase> db)
    : path_(std::move(path)),
      openFlags_(flags),
      queue_(fmt::format("fmdb.<FMKLVDatabaseQueue: {}>", fmt::ptr(this))),
      db_(std::move(db)) {}

FMKLVDatabaseQueue::~FMKLVDatabaseQueue() {
  close();
}

FMKLVDatabase* FMKLVDatabaseQueue::database() {
  queue_.assertCurrent();
  if (isRetired_) return nullptr;
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
    queue_.assertCurrent();
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

void FMKLVDatabaseQueue::retire() {
  queue_.sync([&] {
    queue_.assertCurrent();
    isRetired_ = true;
    db_->close();
  });
}

void FMKLVDatabaseQueue::close() {
  queue_.sync([&] {
    queue_.assertCurrent();
    db_->close();
  });
}

}  // namespace kelvo
