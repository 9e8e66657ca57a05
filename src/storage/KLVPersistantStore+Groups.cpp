#include <exception>

#include "sqlite/FMKLVHandle.h"
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
  /// `needsCounts`: fails if a lifetime count cannot be written.
  [[nodiscard]] bool commit(bool needsCounts) {
    bool committed = false;
    store_.onDatabase([&](FMKLVDatabase& db) {
      committed = writeLast(db, needsCounts) && db.commit();
      if (!committed && reportsFailures()) KLV_ERROR("KLVError {}: {}", db.lastErrorCode(), db.lastErrorMessage());
    });
    open_ = !committed;
    if (!committed) return false;
    store_.ledger_.committed();
    store_.journal_.committed();
    return true;
  }

 private:
  /// Writes what goes with the jobs. After some failures, such as of the disk, SQLite has rolled the transaction back
  /// by itself. Each further statement would be committed at once, and note calls as finished that are not stored.
  [[nodiscard]] bool writeLast(FMKLVDatabase& db, bool needsCounts) {
    const auto isOpen = [&db] { return hasOpenTransaction(db.db()); };
    if (!isOpen() || (!store_.lifetimeCounts_.write(db) && needsCounts) || !isOpen()) return false;
    store_.ledger_.write(db);
    return isOpen() && store_.journal_.write(db);
  }

  KLVPersistantStore& store_;
  bool open_ = false;
};

bool KLVStoreReads::reportsFailures() noexcept {
  return !inTrialRun;
}

void KLVPersistantStore::rollBack() {
  onDatabase([this](FMKLVDatabase& db) {
    static_cast<void>(db.rollback());
    db.clearCachedStatements();  // of tables that no longer exist
    lifetimeCounts_.clear();
    tables_.clear();
    sequences_.reset();
    ++rollbacks_;
  });
}

void KLVPersistantStore::performGrouped(const std::vector<Job>& jobs) {
  openAndMakeTables();
  {  // also for a single job: its statements are done together or not at all
    const TrialRun trial;
    if (performInOneTransaction(jobs) == Performed::committed) return;
  }
  ledger_.rolledBack();
  journal_.rolledBack();
  for (const Job& job : jobs) performAlone(job);
}

void KLVPersistantStore::performAlone(const Job& job) {
  Transaction transaction(*this);
  bool isDone = false;
  try {
    isDone = job(*this);  // the job logs its own failure
  } catch (const std::exception& error) {
    KLV_ERROR("{}", error.what());
  }
  if (transaction.isOpen() && transaction.commit(false)) return;
  if (!transaction.isOpen() && isDone) journal_.finishAll();  // each statement was committed on its own
  fail();
}

void KLVPersistantStore::fail() {
  journal_.failed() ? ledger_.rolledBack() : ledger_.failed();
}

bool KLVPersistantStore::performTogether(const std::vector<Job>& jobs) {
  openAndMakeTables();
  switch (performInOneTransaction(jobs)) {
    case Performed::committed: return true;
    case Performed::notCommitted: fail(); break;
    case Performed::jobFailed:  // it has logged why
      ledger_.failed();
      journal_.finishAll();
  }
  return false;
}

KLVPersistantStore::Performed KLVPersistantStore::performInOneTransaction(const std::vector<Job>& jobs) {
  std::vector<std::string> reasons;  // of jobs that threw, which is no reason to roll the others back
  {
    Transaction transaction(*this);
    if (!transaction.isOpen()) return Performed::notCommitted;
    for (const Job& job : jobs) {
      try {
        if (!job(*this)) return Performed::jobFailed;
      } catch (const std::exception& error) {
        reasons.emplace_back(error.what());
      }
    }
    if (!transaction.commit(true)) return Performed::notCommitted;
  }
  for (const auto& reason : reasons) KLV_ERROR("{}", reason);
  return Performed::committed;
}

}  // namespace kelvo
