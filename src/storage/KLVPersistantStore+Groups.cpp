#include <exception>

#include "storage/KLVPersistantStore.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

/// True while this thread runs a trial run. Per thread, because failures of other threads must still be logged.
thread_local bool inTrialRun = false;

/// Marks a trial run while it lives.
class TrialRun {
 public:
  TrialRun() { inTrialRun = true; }
  TrialRun(const TrialRun&) = delete;
  TrialRun& operator=(const TrialRun&) = delete;
  ~TrialRun() { inTrialRun = false; }
};

}  // namespace

/// Rolls back unless it was committed.
class KLVPersistantStore::Transaction {
 public:
  explicit Transaction(KLVPersistantStore& store) : store_(store) {
    store_.onDatabase([this](FMKLVDatabase& db) { open_ = db.beginTransaction(); });
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction() {
    if (open_) store_.rollBack();
  }
  [[nodiscard]] bool isOpen() const noexcept { return open_; }
  [[nodiscard]] bool commit() {
    bool committed = false;
    store_.onDatabase([&](FMKLVDatabase& db) {
      store_.ledger_.write(db);
      committed = db.commit();
      if (!committed && reportsFailures()) KLV_ERROR("KLVError {}: {}", db.lastErrorCode(), db.lastErrorMessage());
    });
    open_ = !committed;
    if (committed) store_.ledger_.committed();
    return committed;
  }

 private:
  KLVPersistantStore& store_;
  bool open_ = false;
};

bool KLVPersistantStore::reportsFailures() noexcept {
  return !inTrialRun;
}

void KLVPersistantStore::rollBack() {
  onDatabase([this](FMKLVDatabase& db) {
    static_cast<void>(db.rollback());
    tables_.clear();
    sequences_.reset();
    ++rollbacks_;
  });
}

void KLVPersistantStore::performGrouped(const std::vector<Job>& jobs) {
  openAndMakeTables();
  {  // also for a single job: its statements are done together or not at all
    const TrialRun trial;
    if (performInOneTransaction(jobs)) return;
  }
  ledger_.rolledBack();
  for (const Job& job : jobs) performAlone(job);
}

void KLVPersistantStore::performAlone(const Job& job) {
  Transaction transaction(*this);
  try {
    static_cast<void>(job(*this));  // the job logs its own failure
  } catch (const std::exception& error) {
    KLV_ERROR("{}", error.what());
  }
  if (!transaction.isOpen() || !transaction.commit()) ledger_.failed();
}

bool KLVPersistantStore::performTogether(const std::vector<Job>& jobs) {
  openAndMakeTables();
  if (performInOneTransaction(jobs)) return true;  // else the job that failed has logged it
  ledger_.failed();
  return false;
}

bool KLVPersistantStore::performInOneTransaction(const std::vector<Job>& jobs) {
  std::vector<std::string> reasons;  // of jobs that threw, which is no reason to roll the others back
  {
    Transaction transaction(*this);
    if (!transaction.isOpen()) return false;
    for (const Job& job : jobs) {
      try {
        if (!job(*this)) return false;
      } catch (const std::exception& error) {
        reasons.emplace_back(error.what());
      }
    }
    if (!transaction.commit()) return false;
  }
  for (const auto& reason : reasons) KLV_ERROR("{}", reason);
  return true;
}

}  // namespace kelvo
