#include "core/HomeJournal.h"

#include <fmt/format.h>

#include <charconv>
#include <utility>

#include "core/RescueFiles.h"
#include "journal/KLVJournal.h"
#include "journal/KLVJournalPlace.h"
#include "platform/Immortal.h"
#include "storage/KLVJournalWrites.h"
#include "storage/KLVPersistantStore.h"
#include "storage/KLVSchema.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVLogger.h"
#include "util/KLVTimer.h"
#include "util/KLVWaitingCall.h"

namespace kelvo {
namespace {

/// Passes the calls of this process on to the journal.
class Writer final : public KLVCallJournal {
 public:
  [[nodiscard]] std::uint64_t write(const KLVCodedCall& call) noexcept override {
    return KLVJournal::shared().write(static_cast<KLVJournalKind>(call.kind), call.flags, call.time, call.text,
                                      call.info);
  }
  void finish(std::uint64_t sequence) noexcept override { KLVJournal::shared().finish(sequence); }
};

}  // namespace

std::string HomeJournal::Session::text() const {
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(start.time_since_epoch());
  return fmt::format("{} {}", nanoseconds.count(), id);
}

HomeJournal::Session HomeJournal::Session::from(std::string_view text) {
  std::int64_t nanoseconds = 0;
  const auto [rest, failure] = std::from_chars(text.data(), text.data() + text.size(), nanoseconds);
  const auto space = static_cast<std::size_t>(rest - text.data());
  if (failure != std::errc() || space == text.size() || text[space] != ' ') return {};
  const auto start = std::chrono::duration_cast<Date::duration>(std::chrono::nanoseconds(nanoseconds));
  return {Date(start), std::string(text.substr(space + 1))};
}

std::vector<KLVJournalEntry> HomeJournal::open() {
  const auto path = KLVPersistantStore::getDBPathForIdentifier(kKLVDatabaseFile);
  auto known = KLVDeliveryRules::current().keepsJournal ? KLVFinishedCalls::inDatabase(path) : std::nullopt;
  if (!known) {
    KLVWaitingCall::closeJournal();
    return {};
  }
  const auto settings = KLVJournalSettings::current();
  if (known->epoch == 0) {  // rescue files may refer to the entries of the journal's file
    const auto ofFiles = KLVJournal::epochOf(settings);
    *known = {ofFiles != 0 ? ofFiles : KLVJournal::randomEpoch(), {}};
  }
  known->numbers.add(RescueFiles::entries(known->epoch));
  auto& journal = KLVJournal::shared();
  auto unfinished = journal.open(settings, known->epoch, known->numbers.largest(), known->numbers);
  KLVJournalWrites::begin(*std::move(known));
  if (!journal.isOpen()) {
    KLVWaitingCall::closeJournal();
    return unfinished;
  }
  enter({});
  static Immortal<Writer> writer;
  KLVWaitingCall::openJournal(*writer);
  KLV_DEBUG("The journal is open, with {} calls of earlier launches", unfinished.size());
  return unfinished;
}

void HomeJournal::enter(const std::string& id) {
  KLVJournal::shared().setSession(Session{KLVTimer::sharedTimer().SDKStartTime(), id}.text());
}

void HomeJournal::erase() {
  KLVJournal::shared().erase();
  KLVJournalWrites::end();
}

std::vector<std::string> HomeJournal::paths() {
  std::vector<std::string> all;
  for (const auto& place : journalPlaces(KLVJournalSettings::current())) all.push_back(place.path);
  return all;
}

}  // namespace kelvo
