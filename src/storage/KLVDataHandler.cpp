#include "storage/KLVDataHandler.h"

#include <exception>
#include <utility>

#include "storage/KLVCountCache.h"
#include "storage/KLVDataHandlerJobs.h"
#include "storage/KLVSchema.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

/// A few hundred kilobytes of memory, and a few dozen milliseconds of work.
constexpr std::size_t kMaxWaitingWrites = 2048;

/// Returns the name of a session's events table.
std::string eventsTable(const std::string& identifier) {
  return std::string(kKLVEvents) + "_" + identifier;
}

}  // namespace

KLVDataHandler::KLVDataHandler(std::string identifier)
    : sessionIdentifier_(std::move(identifier)),
      jobs_(std::make_shared<KLVDataHandlerJobs>()),
      lifetimeCounts_(std::make_shared<KLVCountCache>()) {
  KLV_DEBUG("Init data handler with identifier: {}", sessionIdentifier_);
}

KLVDataHandler::~KLVDataHandler() = default;

void KLVDataHandler::startWithCompletionHandler(const std::function<void()>& completion) {
  auto store = std::make_unique<KLVPersistantStore>();
  store->createEventsTableWithTableName(eventsTable(sessionIdentifier_));
  store->createChunkMetaInfoTableWithTableName(kKLVChunkMetaInfo);
  store->createAggregateEventsTable();
  store->createLifetimeEventsTable();
  jobs_->setStore(std::move(store));
  if (completion) completion();
}

void KLVDataHandler::saveEventInfo(std::shared_ptr<KLVEvent> event, std::string identifier) {
  if (!event || jobs_->store() == nullptr) return;
  // Converted now, not in the job: the row is much smaller than the event, and in a burst thousands wait.
  Dictionary row;
  try {
    row = event->jsonDict();
  } catch (const std::exception& error) {
    KLV_ERROR("{}", error.what());
    return;
  }
  jobs_->write([row = std::move(row), identifier = std::move(identifier)](KLVPersistantStore& store) {
    return store.insertDataWithTableName(eventsTable(identifier), row);
  });
}

std::vector<Dictionary> KLVDataHandler::getEventsBetween(std::uint64_t start, std::uint64_t end,
                                                         const std::string& identifier,
                                                         const std::optional<std::string>& eventType) {
  return jobs_->sync([&]() -> std::vector<Dictionary> {
    auto* store = jobs_->store();
    if (store == nullptr) return {};
    return store->retrieveDataWithTableName(eventsTable(identifier), start, end, std::string(kKLVType), eventType);
  });
}

std::uint64_t KLVDataHandler::numberOfEventsWithIdentifier(const std::string& identifier) {
  return jobs_->sync([&]() -> std::uint64_t {
    auto* store = jobs_->store();
    if (store == nullptr) return 0;
    return static_cast<std::uint64_t>(store->retrieveNumberOfRecordsInTable(eventsTable(identifier)));
  });
}

std::vector<std::string> KLVDataHandler::getSessions() {
  return jobs_->sync([&] {
    std::vector<std::string> sessions;
    auto* store = jobs_->store();
    if (store == nullptr) return sessions;
    for (const auto& table : store->retrieveTableNames()) {
      if (table.rfind(kKLVEvents, 0) != 0) continue;
      // Kept: cuts an id off at a "_" in it.
      const auto from = table.find('_');
      if (from == std::string::npos) continue;
      sessions.push_back(table.substr(from + 1, table.find('_', from + 1) - from - 1));
    }
    return sessions;
  });
}

void KLVDataHandler::deleteSession(std::string identifier) {
  jobs_->write([identifier = std::move(identifier)](KLVPersistantStore& store) {
    const bool removed = store.removeTableWithName(eventsTable(identifier));
    if (!removed && store.reportsFailures()) KLV_ERROR("Couldn't delete session entry");
    return removed;
  });
}

void KLVDataHandler::writeTogether(const std::function<void()>& submit) {
  jobs_->writeTogether(submit);
}

void KLVDataHandler::catchUp() {
  if (jobs_->waitingWrites() > kMaxWaitingWrites) jobs_->sync([] {});
}

void KLVDataHandler::whenStored(std::function<void()> done) {
  jobs_->async(std::move(done));
}

}  // namespace kelvo
