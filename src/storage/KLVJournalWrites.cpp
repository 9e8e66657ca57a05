#include "storage/KLVJournalWrites.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <charconv>
#include <utility>

#include "journal/KLVJournal.h"
#include "platform/Files.h"
#include "platform/ProcessWide.h"
#include "platform/ThreadSafety.h"
#include "sqlite/FMKLVDatabase.h"
#include "storage/KLVSchema.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

constexpr int kHexadecimal = 16;

struct Known {
  Mutex mutex;
  KLVFinishedCalls calls GUARDED_BY(mutex);
};

/// What the committed transactions of this process have finished, and those before it.
Known& known() {
  static ProcessWide<Known> instance;
  return *instance;
}

KLVFinishedCalls callsOf(const Dictionary& row) {
  KLVFinishedCalls calls;
  const std::string epoch = row[kKLVJournalEpoch].asText().value_or("");
  const auto numbers = KLVSequenceSet::fromText(row[kKLVJournalFinished].asText().value_or(""));
  std::from_chars(epoch.data(), epoch.data() + epoch.size(), calls.epoch, kHexadecimal);
  if (!numbers) return {};
  calls.numbers = *numbers;
  return calls;
}

}  // namespace

std::optional<KLVFinishedCalls> KLVFinishedCalls::inDatabase(const std::string& path) {
  if (!fileExists(path)) return KLVFinishedCalls();
  FMKLVDatabase db(path);
  db.setLogsErrors(false);
  if (!db.openWithFlags(SQLITE_OPEN_READONLY)) return std::nullopt;
  const auto rows = db.executeQuery(fmt::format("SELECT * FROM {}", kKLVJournalCalls));
  FMKLVError failure;
  if (rows != nullptr && rows->nextWithError(&failure)) return callsOf(rows->resultDictionary().value_or(Dictionary()));
  const int code = rows != nullptr ? failure.code : db.lastErrorCode();
  const bool hasNone = code == SQLITE_OK || code == SQLITE_DONE || code == SQLITE_ERROR;  // no row, or no table
  if (hasNone || code == SQLITE_CORRUPT || code == SQLITE_NOTADB) return KLVFinishedCalls();
  return std::nullopt;
}

void KLVJournalWrites::begin(KLVFinishedCalls calls) {
  const Lock lock(known().mutex);
  known().calls = std::move(calls);
}

std::uint64_t KLVJournalWrites::epoch() {
  const Lock lock(known().mutex);
  return known().calls.epoch;
}

void KLVJournalWrites::settle(const KLVWaitingCall& call) {
  if (call.sequence() != 0) calls_.push_back(call);
}

bool KLVJournalWrites::write(FMKLVDatabase& db) {
  due_.reset();
  if (calls_.empty()) return true;
  std::uint64_t epoch = 0;
  {
    const Lock lock(known().mutex);
    epoch = known().calls.epoch;
    if (epoch == 0) return true;  // erased meanwhile
    due_ = known().calls.numbers;
  }
  KLVJournal::shared().addFreed(*due_);
  for (const KLVWaitingCall& call : calls_) {
    if (const auto sequence = call.sequence()) due_->add(sequence, KLVJournal::shared().endOf(sequence));
  }
  const bool isWritten =
      db.executeUpdate(fmt::format("INSERT OR REPLACE INTO {} (id, {}, {}) VALUES (1, '{:x}', '{}')", kKLVJournalCalls,
                                   kKLVJournalEpoch, kKLVJournalFinished, epoch, due_->text()));
  if (!isWritten) KLV_WARN("The calls of the journal cannot be noted: {}", db.lastErrorMessage());
  return isWritten;
}

void KLVJournalWrites::committed() {
  if (due_) {
    const Lock lock(known().mutex);
    known().calls.numbers = *std::exchange(due_, std::nullopt);
  }
  finishAll();
}

void KLVJournalWrites::finishAll() {
  for (const KLVWaitingCall& call : calls_) call.finish();
  calls_.clear();
}

bool KLVJournalWrites::failed() {
  for (const KLVWaitingCall& call : calls_) call.leaveToNextLaunch();
  return !std::exchange(calls_, {}).empty();
}

}  // namespace kelvo
