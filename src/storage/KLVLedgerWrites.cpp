#include "storage/KLVLedgerWrites.h"

#include <fmt/format.h>

#include <filesystem>

#include "platform/JSON.h"
#include "platform/UserDefaults.h"
#include "sqlite/FMKLVDatabase.h"
#include "storage/KLVPersistantStore.h"
#include "storage/KLVSchema.h"
#include "util/KLVDefaultsKeys.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

using Entry = KLVLedgerEntry;

/// Adds `sums` to the table. Returns false on failure.
[[nodiscard]] bool add(FMKLVDatabase& db, const KLVLedgerSums& sums) {
  std::string rows;
  Array values;
  for (const auto& [entry, events] : sums.form()) {
    rows += rows.empty() ? "(?,?)" : ",(?,?)";
    values.append(entry);
    values.append(events);
  }
  return rows.empty() || db.updateKeepingStatement(fmt::format("INSERT INTO {0} ({1},{2}) VALUES {3} ON CONFLICT({1}) "
                                                               "DO UPDATE SET {2}={2}+excluded.{2}",
                                                               kKLVLedger, kKLVLedgerEntryName, kKLVLedgerTotal, rows),
                                                   values);
}

void keep(const KLVLedgerSums& sums) {
  if (const auto text = jsonText(sums.form())) UserDefaults::standard().set(kKLVLedgerKey, *text);
}

/// Returns the sums of a database that has no ledger yet: events that an earlier version of the library stored.
KLVLedgerSums measuredSums(FMKLVDatabase& db) {
  KLVLedgerSums sums;
  std::int64_t forUpload = 0;
  const std::string prefix = std::string(kKLVEvents) + "_";
  const auto tables = db.executeQuery("SELECT name FROM sqlite_master WHERE type = 'table'");
  while (tables != nullptr && tables->next()) {
    const std::string table = (*tables->resultDictionary())["name"].asText().value_or("");
    if (!table.starts_with(prefix)) continue;
    sums[Entry::stored] += db.longForQuery(fmt::format("SELECT COUNT(*) FROM {}", quotedName(table)));
    forUpload += static_cast<std::int64_t>(KLVWaiting::eventsIn(db, table, 0, INT64_MAX).value_or(0));
  }
  const auto waiting = KLVWaiting::in(db, "");
  sums[Entry::logged] = sums[Entry::stored];
  sums[Entry::notForUpload] = sums[Entry::stored] - forUpload;
  sums[Entry::accepted] = forUpload - static_cast<std::int64_t>(waiting ? waiting->events : 0);
  return sums;
}

/// Returns the sums that a database begins with. If there is a kept copy, an earlier database is gone: everything that
/// waited there is lost.
KLVLedgerSums firstSums(FMKLVDatabase& db) {
  const auto text = UserDefaults::standard().string(kKLVLedgerKey);
  if (!text) return measuredSums(db);
  const auto totals = parseJSON(*text);
  KLVLedgerSums sums = KLVLedgerSums::from(Value(totals).asDictionary().value_or(Dictionary()));
  sums[Entry::lost] += sums.unaccepted();
  return sums;
}

}  // namespace

bool countInLedger(KLVPersistantStore& store, KLVLedgerEntry entry, std::int64_t events, const KLVWaitingCall& call) {
  store.ledger().count(entry, events, call);
  return true;
}

std::optional<Dictionary> readLedger(FMKLVDatabase& db) {
  const auto rows = db.executeQuery(fmt::format("SELECT * FROM {}", kKLVLedger));
  if (rows == nullptr) return std::nullopt;
  Dictionary totals;
  FMKLVError failure;
  while (rows->nextWithError(&failure)) {
    const Dictionary row = rows->resultDictionary().value_or(Dictionary());
    totals.set(row[kKLVLedgerEntryName].asText().value_or(""), row[kKLVLedgerTotal]);
  }
  return failure.code == 0 ? std::optional(std::move(totals)) : std::nullopt;
}

bool KLVLedgerWrites::isBehind() {
  return KLVLedger::shared().unwritten() != KLVLedgerSums();
}

void KLVLedgerWrites::write(FMKLVDatabase& db) {
  due_ = {};
  if (!isOpen_) return;
  KLVLedgerSums due = KLVLedger::shared().unwritten();
  due += own_;
  due += fromFiles_;
  due += fromJournal_;
  due[Entry::logged] = due.outcomes();
  if (add(db, due)) {
    due_ = due;
  } else {
    KLV_WARN("The ledger cannot be written: {}", db.lastErrorMessage());
  }
}

void KLVLedgerWrites::committed() {
  KLVLedger::shared().committed(own_, fromFiles_, fromJournal_, due_);
  const bool moved =
      due_[Entry::sent] + due_[Entry::accepted] + due_[Entry::evictedForSpace] + due_[Entry::evictedForAge] > 0;
  rolledBack();
  if (moved) keepCopy();
}

void KLVLedgerWrites::failed() {
  if (const auto events = own_.outcomes(); events > 0) {
    KLVLedger::shared().add(Entry::notStored, static_cast<std::uint64_t>(events));
  }
  rolledBack();
}

void KLVLedgerWrites::open(FMKLVDatabase& db) {
  if (isOpen_) return;
  db.setLogsErrors(false);  // the table may not exist yet
  const auto totals = readLedger(db);
  if (!totals) return;
  KLVLedgerSums sums = KLVLedgerSums::from(*totals);
  if (totals->empty()) {
    sums = firstSums(db);
    if (!add(db, sums)) return;
  }
  KLVLedger::shared().opened(sums);
  isOpen_ = true;
}

void KLVLedgerWrites::keepCopy() const {
  if (isOpen_) keep(KLVLedger::shared().table());
}

void KLVLedgerWrites::keepCopyOf(const std::string& path) {
  // SQLite reads copies, because it would change the side files, which may help to repair the database.
  const std::string copy = path + ".copy";
  std::error_code failure;
  for (const char* suffix : {"", "-wal"}) std::filesystem::copy_file(path + suffix, copy + suffix, failure);
  {
    FMKLVDatabase db(copy);
    db.setLogsErrors(false);
    const auto totals = db.open() ? readLedger(db) : std::nullopt;
    if (totals && !totals->empty()) keep(KLVLedgerSums::from(*totals));
  }
  for (const char* suffix : {"-wal", "-shm", ""}) std::filesystem::remove(copy + suffix, failure);
}

}  // namespace kelvo
