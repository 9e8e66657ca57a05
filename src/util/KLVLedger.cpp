#include "util/KLVLedger.h"

#include <algorithm>
#include "platform/ProcessWide.h"

namespace kelvo {
namespace {

using Entry = KLVLedgerEntry;

/// The entries' names in the database and in uploads are those of the enumerators.
constexpr std::array<std::string_view, kLedgerEntries> kNames = {"logged",
                                                                 "refusedNameless",
                                                                 "refusedUncleanable",
                                                                 "refusedDisabled",
                                                                 "refusedTerminated",
                                                                 "refusedStorm",
                                                                 "droppedBeforeConsent",
                                                                 "ignored",
                                                                 "counted",
                                                                 "forPlugins",
                                                                 "stored",
                                                                 "notStored",
                                                                 "notForUpload",
                                                                 "sent",
                                                                 "accepted",
                                                                 "evictedForSpace",
                                                                 "evictedForAge",
                                                                 "lost"};

constexpr auto kFirstOutcome = static_cast<std::size_t>(Entry::refusedNameless);
constexpr auto kLastOutcome = static_cast<std::size_t>(Entry::notStored);

/// The names of counts that are measured, not summed up.
constexpr std::string_view kHeld = "held", kInMemory = "waitingInMemory", kRescued = "rescued", kWaiting = "waiting";

/// Returns the public form. A sum below 0, which a race of two readings can cause, becomes 0.
LedgerCounts countsOf(const KLVLedgerSums& sums) {
  const auto sum = [&](Entry entry) { return static_cast<std::uint64_t>(std::max<std::int64_t>(0, sums[entry])); };
  LedgerCounts counts;
  counts.logged = sum(Entry::logged);
  counts.refused = {sum(Entry::refusedNameless), sum(Entry::refusedUncleanable), sum(Entry::refusedDisabled),
                    sum(Entry::refusedTerminated), sum(Entry::refusedStorm)};
  counts.droppedBeforeConsent = sum(Entry::droppedBeforeConsent);
  counts.ignored = sum(Entry::ignored);
  counts.counted = sum(Entry::counted);
  counts.forPlugins = sum(Entry::forPlugins);
  counts.stored = sum(Entry::stored);
  counts.notStored = sum(Entry::notStored);
  counts.notForUpload = sum(Entry::notForUpload);
  counts.sent = sum(Entry::sent);
  counts.accepted = sum(Entry::accepted);
  counts.evicted = {sum(Entry::evictedForSpace), sum(Entry::evictedForAge)};
  counts.lost = sum(Entry::lost);
  return counts;
}

}  // namespace

KLVLedgerSums& KLVLedgerSums::operator+=(const KLVLedgerSums& other) {
  for (std::size_t i = 0; i < kLedgerEntries; ++i) sums_[i] += other.sums_[i];
  return *this;
}

KLVLedgerSums& KLVLedgerSums::operator-=(const KLVLedgerSums& other) {
  for (std::size_t i = 0; i < kLedgerEntries; ++i) sums_[i] -= other.sums_[i];
  return *this;
}

std::int64_t KLVLedgerSums::outcomes() const {
  std::int64_t sum = 0;
  for (std::size_t i = kFirstOutcome; i <= kLastOutcome; ++i) sum += sums_[i];
  return sum;
}

std::int64_t KLVLedgerSums::unaccepted() const {
  const auto& sums = *this;
  return sums[Entry::stored] - sums[Entry::notForUpload] - sums[Entry::accepted] - sums[Entry::evictedForSpace] -
         sums[Entry::evictedForAge] - sums[Entry::lost];
}

Dictionary KLVLedgerSums::form() const {
  Dictionary form;
  for (std::size_t i = 0; i < kLedgerEntries; ++i) {
    if (sums_[i] != 0) form.set(kNames[i], sums_[i]);
  }
  return form;
}

KLVLedgerSums KLVLedgerSums::from(const Dictionary& form) {
  KLVLedgerSums sums;
  for (std::size_t i = 0; i < kLedgerEntries; ++i) sums.sums_[i] = form[kNames[i]].asInt64();
  return sums;
}

KLVLedger& KLVLedger::shared() {
  static ProcessWide<KLVLedger> instance;
  return *instance;
}

KLVLedger::Counted KLVLedger::counted() const {
  KLVLedgerSums own;
  for (std::size_t i = kLedgerEntries; i-- > 1;) {
    own[static_cast<Entry>(i)] = static_cast<std::int64_t>(count(static_cast<Entry>(i)));
  }
  const std::uint64_t held = held_, rescued = rescued_;
  // Read last, so that no event has an outcome before it is logged.
  own[Entry::logged] = static_cast<std::int64_t>(count(Entry::logged));
  const std::int64_t known = own.outcomes() + static_cast<std::int64_t>(held + rescued);
  const auto inMemory = static_cast<std::uint64_t>(std::max<std::int64_t>(0, own[Entry::logged] - known));

  KLVLedgerSums all = own;
  {
    const Lock lock(mutex_);
    all += earlier_;
  }
  const auto waiting = static_cast<std::uint64_t>(std::max<std::int64_t>(0, all.unaccepted()));
  return {own, all, held, inMemory, rescued, waiting};
}

Ledger KLVLedger::ledger() const {
  const Counted counted = this->counted();
  Ledger ledger{countsOf(counted.own), countsOf(counted.all)};
  for (LedgerCounts* counts : {&ledger.thisProcess, &ledger.sinceInstallation}) {
    counts->held = counted.held;
    counts->waitingInMemory = counted.inMemory;
    counts->rescued = counted.rescued;
    counts->waiting = counted.waiting;
  }
  return ledger;
}

Dictionary KLVLedger::form() const {
  const Counted counted = this->counted();
  Dictionary form = counted.all.form();
  const auto set = [&](std::string_view name, std::uint64_t events) {
    if (events > 0) form.set(name, static_cast<std::int64_t>(events));
  };
  set(kHeld, counted.held);
  set(kInMemory, counted.inMemory);
  set(kRescued, counted.rescued);
  set(kWaiting, counted.waiting);
  return form;
}

void KLVLedger::reset() {
  const Lock lock(mutex_);
  add(Entry::notStored, rescued_.exchange(0));  // the files are erased
  for (std::size_t i = kFirstOutcome; i < kLedgerEntries; ++i) {
    written_[static_cast<Entry>(i)] = static_cast<std::int64_t>(count(static_cast<Entry>(i)));
  }
  written_[Entry::logged] = written_.outcomes();
  earlier_ = {};
  earlier_ -= written_;
}

void KLVLedger::opened(const KLVLedgerSums& table) {
  const Lock lock(mutex_);
  earlier_ = table;
  earlier_ -= written_;
}

KLVLedgerSums KLVLedger::unwritten() const {
  KLVLedgerSums sums;
  const Lock lock(mutex_);
  for (std::size_t i = kFirstOutcome; i < kLedgerEntries; ++i) {
    sums[static_cast<Entry>(i)] =
        static_cast<std::int64_t>(count(static_cast<Entry>(i))) - written_[static_cast<Entry>(i)];
  }
  sums[Entry::logged] = sums.outcomes();
  return sums;
}

void KLVLedger::committed(const KLVLedgerSums& own, const KLVLedgerSums& fromFiles, const KLVLedgerSums& fromJournal,
                          const KLVLedgerSums& written) {
  const Lock lock(mutex_);
  // Events of files count as logged by the process that wrote the file, which may be this one.
  KLVLedgerSums ofThis = own, ofEarlier = fromFiles;
  const auto back = std::min(static_cast<std::int64_t>(rescued_.load()), fromFiles[Entry::stored]);
  ofThis[Entry::stored] += back;
  ofEarlier[Entry::stored] -= back;
  rescued_ -= static_cast<std::uint64_t>(back);
  ofEarlier += fromJournal;
  for (std::size_t i = kFirstOutcome; i < kLedgerEntries; ++i) {
    add(static_cast<Entry>(i), static_cast<std::uint64_t>(ofThis[static_cast<Entry>(i)]));
  }
  ofEarlier[Entry::logged] = ofEarlier.outcomes();
  earlier_ += ofEarlier;
  written_ += written;
  written_ -= ofEarlier;
}

KLVLedgerSums KLVLedger::table() const {
  const Lock lock(mutex_);
  KLVLedgerSums sums = earlier_;
  sums += written_;
  return sums;
}

}  // namespace kelvo
