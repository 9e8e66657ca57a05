#include "storage/KLVDataHandler.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "storage/KLVCountCache.h"
#include "storage/KLVDataHandlerJobs.h"
#include "storage/KLVEventWrites.h"
#include "storage/KLVSchema.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

/// A megabyte of memory, and about ten milliseconds of work.
constexpr std::size_t kMaxWaitingWrites = 1024;

/// Returns about the size of an event's row in the file.
std::uint64_t bytesOf(const Dictionary& row) {
  constexpr std::uint64_t kOtherColumns = 40;
  const auto* name = row[kKLVId].get<std::string>();
  const auto* attributes = row[kKLVAdditionalInfo].get<std::string>();
  return kOtherColumns + (name != nullptr ? name->size() : 0) + (attributes != nullptr ? attributes->size() : 0);
}

}  // namespace

KLVDataHandler::KLVDataHandler(std::string identifier)
    : KLVFileStore(std::make_shared<KLVDataHandlerJobs>()),
      sessionIdentifier_(std::move(identifier)),
      lifetimeCounts_(std::make_shared<KLVCountCache>()) {
  KLV_DEBUG("Init data handler with identifier: {}", sessionIdentifier_);
}

KLVDataHandler::KLVDataHandler(std::string identifier, const KLVDataHandler& first)
    : KLVFileStore(first.jobs_), sessionIdentifier_(std::move(identifier)), lifetimeCounts_(first.lifetimeCounts_) {
  KLV_DEBUG("Init data handler with identifier: {}", sessionIdentifier_);
}

/// The database is closed on the data queue, after the jobs that wait. The caller may hold a mutex.
KLVDataHandler::~KLVDataHandler() {
  if (jobs_->store() != nullptr) jobs_->async([jobs = jobs_] {});
}

void KLVDataHandler::startWithCompletionHandler(const std::function<void()>& completion) {
  if (jobs_->store() == nullptr) {
    auto store = std::make_unique<KLVPersistantStore>();
    store->createChunkMetaInfoTableWithTableName(kKLVChunkMetaInfo);
    store->createAggregateEventsTable();
    store->createLifetimeEventsTable();
    store->createOwnTables();
    jobs_->setStore(std::move(store));
  }
  if (completion) completion();
}

void KLVDataHandler::saveEventInfo(std::shared_ptr<KLVEvent> event, std::string identifier) {
  insert(event, std::move(identifier), [](KLVPersistantStore&) { return true; });
}

void KLVDataHandler::saveAndCountEvent(const std::shared_ptr<KLVEvent>& event, std::string identifier) {
  if (!event) return;
  if (event->eventType() == KLVEventType::aggregate) {
    return insert(event, identifier,
                  [event, identifier](KLVPersistantStore& store) { return countAggregate(store, *event, identifier); });
  }
  insert(event, std::move(identifier),
         [cache = lifetimeCounts_, name = event->identifier()](KLVPersistantStore& store) {
           return countLifetimeEvent(store, *cache, name);
         });
}

template <class Count>
void KLVDataHandler::insert(const std::shared_ptr<KLVEvent>& event, std::string identifier, Count count) {
  if (!event) return;
  if (jobs_->store() == nullptr) return KLVLedger::shared().add(KLVLedgerEntry::notStored);
  // Converted now, not in the job: the row is much smaller than the event, and in a burst thousands wait.
  Dictionary row;
  try {
    row = event->jsonDict();
  } catch (const std::exception& error) {
    KLV_ERROR("{}", error.what());
    return settle(event->call(), KLVLedgerEntry::refusedUncleanable);
  }
  const bool isOwn = identifier == sessionIdentifier_;
  jobs_->grow(bytesOf(row));
  jobs_->write(
      [row = std::move(row), identifier = std::move(identifier), isOwn, count = std::move(count),
       call = event->call()](KLVPersistantStore& store) {
        store.journal().settle(call);
        const bool isStored = insertEvent(store, identifier, isOwn, row);
        countRow(store, row, isStored, call);
        return isStored && count(store);
      },
      eventsOf(event->call()));
}

std::optional<std::uint64_t> KLVDataHandler::readEvents(const std::string& identifier, std::uint64_t first,
                                                        std::uint64_t last, std::uint64_t most,
                                                        const std::function<void(const KLVStoredEvent&)>& take) {
  return jobs_->sync([&]() -> std::optional<std::uint64_t> {
    auto* store = jobs_->store();
    if (store == nullptr) return 0;
    const auto table = eventsTable(identifier);
    const auto exists = store->tableExists(table);
    if (!exists) return std::nullopt;
    return *exists ? store->readEvents(table, first, last, most, take) : 0;
  });
}

std::optional<std::vector<Dictionary>> KLVDataHandler::getEventsBetween(std::uint64_t start, std::uint64_t end,
                                                                        const std::string& identifier,
                                                                        const std::optional<std::string>& eventType) {
  return jobs_->sync([&]() -> std::optional<std::vector<Dictionary>> {
    auto* store = jobs_->store();
    if (store == nullptr) return std::vector<Dictionary>();
    const auto table = eventsTable(identifier);
    const auto exists = store->tableExists(table);
    if (!exists) return std::nullopt;
    if (!*exists) return std::vector<Dictionary>();
    return store->retrieveDataWithTableName(table, start, end, std::string(kKLVType), eventType);
  });
}

std::optional<std::uint64_t> KLVDataHandler::numberOfEventsWithIdentifier(const std::string& identifier) {
  return jobs_->sync([&]() -> std::optional<std::uint64_t> {
    auto* store = jobs_->store();
    if (store == nullptr) return 0;
    const auto stored = store->lastIdentifierInTable(eventsTable(identifier));
    const auto cut = store->endOfChunks(identifier);
    if (!stored || !cut) return std::nullopt;
    return std::max(*stored, *cut);
  });
}

void KLVDataHandler::writeTogether(const std::function<void()>& submit, std::function<void()> committed) {
  jobs_->writeTogether(submit, std::move(committed));
}

void KLVDataHandler::catchUp() {
  if (jobs_->waitingWrites() > kMaxWaitingWrites) jobs_->sync([] {});
}

void KLVDataHandler::whenReady(std::function<void(bool isReady)> report) {
  jobs_->async([jobs = jobs_, report = std::move(report)] {
    if (auto* store = jobs->store()) store->whenReady(report);
  });
}

void KLVDataHandler::whenStored(std::function<void()> done) {
  jobs_->asyncAlways([jobs = jobs_, done = std::move(done)] {
    if (auto* store = jobs->store()) {
      if (KLVLedgerWrites::isBehind()) static_cast<void>(store->performTogether({}));
      store->ledger().keepCopy();
    }
    done();
  });
}

void KLVDataHandler::retire(std::function<void()> done) {
  jobs_->retire(std::move(done));
}

}  // namespace kelvo
