#include <exception>

#include "storage/KLVPersistantStore.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

/// Whether this thread tries a group as a whole. Other threads read meanwhile, and their failures are their own.
thread_local bool tryingGroup = false;

class GroupTrial {
 public:
  GroupTrial() { tryingGroup = true; }
  GroupTrial(const GroupTrial&) = delete;
  GroupTrial& operator=(const GroupTrial&) = delete;
  ~GroupTrial() { tryingGroup = false; }
};

}  // namespace

/// Rolls back unless it was committed.
class KLVPersistantStore::Transaction {
 public:
  explicit Transaction(KLVPersistantStore& store)
      : store_(store), open_(store.onDatabase(&FMKLVDatabase::beginTransaction)) {}
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction() {
    if (open_) store_.rollBack();
  }
  [[nodiscard]] bool isOpen() const noexcept { return open_; }
  [[nodiscard]] bool commit() {
    const bool committed = store_.onDatabase(&FMKLVDatabase::commit);
    open_ = !committed;
    return committed;
  }

 private:
  KLVPersistantStore& store_;
  bool open_;
};

bool KLVPersistantStore::reportsFailures() noexcept {
  return !tryingGroup;
}

void KLVPersistantStore::rollBack() {
  onDatabase([this](FMKLVDatabase& db) {
    static_cast<void>(db.rollback());
    recordCounts_.clear();
    ++rollbacks_;
  });
}

void KLVPersistantStore::performGrouped(const std::vector<Job>& jobs) {
  openAndMakeTables();
  if (jobs.size() > 1) {
    const GroupTrial trial;
    if (performInOneTransaction(jobs)) return;
  }
  for (const Job& job : jobs) {
    try {
      static_cast<void>(job(*this));  // it has logged its own failure
    } catch (const std::exception& error) {
      KLV_ERROR("{}", error.what());
    }
  }
}

void KLVPersistantStore::performTogether(const std::vector<Job>& jobs) {
  openAndMakeTables();
  static_cast<void>(performInOneTransaction(jobs));  // the one that failed has logged it
}

bool KLVPersistantStore::performInOneTransaction(const std::vector<Job>& jobs) {
  std::vector<std::string> refusals;  // by jobs that threw: no reason to give the others up
  {
    Transaction transaction(*this);
    if (!transaction.isOpen()) return false;
    for (const Job& job : jobs) {
      try {
        if (!job(*this)) return false;
      } catch (const std::exception& error) {
        refusals.emplace_back(error.what());
      }
    }
    if (!transaction.commit()) return false;
  }
  for (const auto& refusal : refusals) KLV_ERROR("{}", refusal);
  return true;
}

}  // namespace kelvo
