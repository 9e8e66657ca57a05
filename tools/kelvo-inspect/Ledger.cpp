#include "kelvo-inspect/Ledger.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include "platform/Files.h"
#include "sqlite/FMKLVDatabase.h"
#include "storage/KLVLedgerWrites.h"
#include "storage/KLVWaiting.h"

namespace kelvo::inspect {
namespace {

/// Returns a sentence for each equation that does not hold.
Array faultsIn(const KLVLedgerSums& sums, std::int64_t waiting) {
  Array faults;
  const auto logged = sums[KLVLedgerEntry::logged];
  if (logged != sums.outcomes()) {
    faults.append(fmt::format("{} events were logged, but the outcomes of {} are known", logged, sums.outcomes()));
  }
  if (sums.unaccepted() != waiting) {
    faults.append(fmt::format("By the sums {} events wait, but the tables have {}", sums.unaccepted(), waiting));
  }
  return faults;
}

}  // namespace

Value readLedger(const std::string& path, const Array& savedEvents) {
  FMKLVDatabase db(path);
  db.setLogsErrors(false);
  // One transaction: a program may be writing.
  if (!fileExists(path) || !db.openWithFlags(SQLITE_OPEN_READONLY) || !db.beginDeferredTransaction()) return {};
  const auto totals = kelvo::readLedger(db);
  const auto measured = totals ? KLVWaiting::in(db, "") : std::nullopt;
  static_cast<void>(db.rollback());
  if (!measured) return {};
  KLVLedgerSums sums = KLVLedgerSums::from(*totals);
  const auto waiting = static_cast<std::int64_t>(measured->events);
  const Array faults = faultsIn(sums, waiting);
  std::int64_t rescued = 0;
  for (const Value& file : savedEvents) {
    rescued += static_cast<std::int64_t>((*file.get<Dictionary>())["events"].asArray().value_or(Array()).size());
  }
  sums[KLVLedgerEntry::logged] += rescued;
  Dictionary ledger = sums.form();
  ledger.set("rescued", rescued);
  ledger.set("waiting", waiting);
  ledger.set("faults", faults);
  return ledger;
}

}  // namespace kelvo::inspect
