#include <algorithm>
#include <exception>
#include <filesystem>
#include <utility>

#include "platform/Directories.h"
#include "storage/KLVDataHandler.h"
#include "storage/KLVDataHandlerJobs.h"
#include "storage/KLVEventWrites.h"
#include "storage/KLVSchema.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

/// A rescued event and its row.
struct RescuedEvent {
  std::shared_ptr<KLVEvent> event;
  Dictionary row;
};

/// Leaves out, with one ERROR line, an event that has no storage form.
std::vector<RescuedEvent> rowsOf(const std::vector<std::shared_ptr<KLVEvent>>& events) {
  std::vector<RescuedEvent> result;
  for (const auto& event : events) {
    try {
      result.push_back({event, event->jsonDict()});
    } catch (const std::exception& error) {
      KLV_ERROR("{}", error.what());
    }
  }
  return result;
}

}  // namespace

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

std::vector<std::string> KLVDataHandler::getSessionDirectories() {
  return jobs_->sync([&] {
    std::vector<std::string> sessions;
    std::error_code failure;
    for (std::filesystem::directory_iterator entry(Directories::library(), failure), end; entry != end && !failure;
         entry.increment(failure)) {
      const auto name = entry->path().filename().string();
      if (KLVSession::isIdentifier(name) && entry->is_directory(failure)) sessions.push_back(name);
    }
    std::sort(sessions.begin(), sessions.end());
    return sessions;
  });
}

KLVDataHandler::Rescue KLVDataHandler::storeRescuedEvents(const std::string& file,
                                                          const std::vector<std::shared_ptr<KLVEvent>>& events,
                                                          const std::string& sid) {
  auto result = Rescue::failed;
  const auto rows = rowsOf(events);
  const auto stores = [&](KLVPersistantStore& store, const RescuedEvent& rescued) {
    const KLVEvent& event = *rescued.event;
    const auto type = event.eventType();
    const bool countsForLife = type == KLVEventType::app || type == KLVEventType::client;
    store.ledger().countFromFile(KLVLedgerEntry::stored, 1);
    store.ledger().countFromFile(KLVLedgerEntry::notForUpload, notForUpload(rescued.row));
    return insertEvent(store, sid, true, rescued.row) &&
           (!countsForLife || countLifetimeEvent(store, *lifetimeCounts_, event.identifier()) ||
            isUncountable(event.identifier())) &&
           (type != KLVEventType::aggregate || countAggregate(store, event, sid));
  };
  const bool committed = jobs_->writeNow([&](KLVPersistantStore& store) {
    const auto recorded = store.countInTable(kKLVRescuedFiles, kKLVRescuedFileName, file);
    if (!recorded) return false;
    if (*recorded != 0) {
      result = Rescue::alreadyStored;
      return true;
    }
    const auto formless = static_cast<std::int64_t>(events.size() - rows.size());
    store.ledger().countFromFile(KLVLedgerEntry::refusedUncleanable, formless);
    Dictionary name;
    name.set(kKLVRescuedFileName, file);
    return store.insertDataWithTableName(kKLVRescuedFiles, name) &&
           std::all_of(rows.begin(), rows.end(), [&](const auto& rescued) { return stores(store, rescued); });
  });
  if (result == Rescue::alreadyStored) return result;
  return committed ? Rescue::stored : Rescue::failed;
}

void KLVDataHandler::forgetRescuedFile(std::string file) {
  jobs_->write([file = std::move(file)](KLVPersistantStore& store) {
    return store.removeDataWithTableName(kKLVRescuedFiles, kKLVRescuedFileName, file);
  });
}

}  // namespace kelvo
