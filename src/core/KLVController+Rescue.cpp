#include <algorithm>
#include <set>
#include <string>
#include <utility>

#include "core/HomeJournal.h"
#include "core/JournalReplay.h"
#include "core/KLVController.h"
#include "core/RescueFiles.h"
#include "util/KLVLogger.h"
#include "util/KLVUtilities+Cleaning.h"

namespace kelvo {

void KLVController::rescue() {
  const bool holdsHome = holdsHome_;
  const Lock files(rescueMutex_);
  std::vector<EventRef> events;
  std::vector<BufferedAttributes> calls;
  {
    const Lock lock(mutex_);
    if (!gate_.databaseExists()) events = gate_.takeEvents();
    if (holdsHome && !gate_.recordsExist()) calls = gate_.takeUserAttributes();
  }
  // Kept: does not report a failed write.
  if (!events.empty()) {
    const auto written = static_cast<std::ptrdiff_t>(RescueFiles::writeEvents(events, holdsHome));
    // Before the file can be stored and deleted, whoever still holds the events.
    std::for_each(events.begin(), events.begin() + written, [](const EventRef& event) { event->call().finish(); });
    const std::vector<EventRef> left(events.begin() + written, events.end());
    Lock lock(mutex_);
    const bool storesNow = gate_.databaseExists();  // nothing empties the buffer any more
    if (!storesNow) gate_.putBack(left);
    lock.unlock();
    if (storesNow && !left.empty()) persistEvents(left);
  }
  if (!calls.empty() && !RescueFiles::writeUserAttributes(calls)) {
    const Lock lock(mutex_);
    gate_.putBack(calls);
  }
}

bool KLVController::storeRescuedEvents() {
  const auto handler = dataHandler();
  const auto running = session();
  if (handler == nullptr || running == nullptr) return false;
  {
    const Lock files(rescueMutex_);
    if (!RescueFiles::retire()) return false;
  }
  // A file that an earlier launch has stored, but not deleted, is recorded in the database: it is not stored again.
  for (const std::string& file : RescueFiles::names()) {
    const auto events = RescueFiles::read(file);
    if (!events) continue;
    const auto result = handler->storeRescuedEvents(file, *events, running->identifier());
    if (result == KLVDataHandler::Rescue::failed) continue;
    if (RescueFiles::remove(file)) handler->forgetRescuedFile(file);
  }
  return true;
}

void KLVController::openJournal() {
  unfinishedCalls_ = HomeJournal::open();
  const auto ofUser = JournalReplay::takeUserAttributes(unfinishedCalls_);
  if (ofUser.empty()) return;
  // At once, because a rescue may write later attributes into the file.
  const Lock files(rescueMutex_);
  if (RescueFiles::writeUserAttributes(ofUser)) return;
  for (const BufferedAttributes& call : ofUser) call.call.leaveToNextLaunch();
}

void KLVController::replayUnfinishedCalls() {
  const auto calls = std::exchange(unfinishedCalls_, {});
  const auto handler = dataHandler();
  const auto running = session();
  if (calls.empty() || handler == nullptr || running == nullptr) return;
  KLV_INFO("Storing {} calls that an earlier launch has not stored", calls.size());
  // A session that is purged must not begin with its first event again.
  std::set<std::string> sessions;
  for (const auto& all : {handler->getSessions(), handler->getSessionDirectories()}) {
    sessions.insert(all.begin(), all.end());
  }
  // As the bus and the controller do with an event of this process. Listeners do not get it: it is of the past.
  const JournalReplay replay(calls, *this, [&](const EventRef& event, const std::string& id) {
    const std::string session = sessions.count(id) > 0 ? id : running->identifier();
    handler->catchUp();  // an entry takes less memory than its event
    if (!eventHandler_.classify(*event)) {
      handler->settle(event->call(), KLVLedgerEntry::ignored);
    } else if (event->eventType() == KLVEventType::client) {
      handler->upsertLifetimeEvent(event);
    } else if (event->eventType() == KLVEventType::aggregate) {
      handler->countAggregateEvent(event, session);
    } else if (event->eventType() == KLVEventType::app) {
      handler->saveAndCountEvent(event, session);
    } else if (!event->isStorable()) {
      handler->settle(event->call(), KLVLedgerEntry::forPlugins);
    } else {
      handler->saveEventInfo(event, session);
    }
  });
  const auto device = deviceInfo();
  if (replay.token && device != nullptr) device->logEarlierToken(replay.token->text, replay.token->call);
  for (const auto& [id, attributes] : replay.ofSessions) {
    const auto stored = handler->retrieveSessionInfoWithIdentifier(id);
    const auto& session = id.empty() ? running : stored;
    if (session == nullptr) continue;
    for (const BufferedAttributes& call : attributes) {
      call.applyTo(*session);
      handler->saveSessionInfo(session, session->identifier(), {call.call});
    }
  }
}

/// Thread: the controller's queue. Later calls therefore follow the buffered ones.
void KLVController::mergeStoredUser() {
  std::vector<BufferedAttributes> calls;
  {
    const Lock files(rescueMutex_);  // waits for a rescue that is writing the user's file
    const Lock lock(mutex_);
    calls = gate_.takeAttributes();
  }
  Array descriptions;
  for (const BufferedAttributes& call : calls) {
    descriptions.append(Dictionary{{"type", call.isUser ? "user" : "session"}, {"info", call.attributes}});
  }
  KLV_DEBUG("Persisting info buffer: {}", descriptions);
  const auto current = user();
  const auto running = session();
  for (const BufferedAttributes& call : calls) {
    call.isUser ? call.applyTo(*current) : call.applyTo(*running);
  }
  const auto stored = retrieveUser();
  if (stored != nullptr) {
    if (stored->identifier().empty()) stored->setIdentifier(current->identifier());
    KLV_INFO("Updating user info");
    KLV_DEBUG("Updating old user info: {} with new user info: {}", stored->customInfo(), current->customInfo());
    for (const auto& [key, value] : KLVUtilities::dictionaryByRemovingNulls(current->customInfo())) {
      stored->setCustomInfo(value, key);
    }
    stored->setDelegate(this);
  }
  {
    const Lock lock(mutex_);
    if (stored != nullptr) components_.user = stored;
    gate_.openRecords();
  }
  KLVWaitingCalls ofUser, ofSession;
  for (const BufferedAttributes& call : calls) (call.isUser ? ofUser : ofSession).push_back(call.call);
  saveRecords(std::move(ofUser), std::move(ofSession));
}

void KLVController::saveRecords(KLVWaitingCalls ofUser, KLVWaitingCalls ofSession) {
  saveUserInfo(std::move(ofUser));
  const auto running = session();
  const auto handler = dataHandler();
  if (running && handler) handler->saveSessionInfo(running, running->identifier(), std::move(ofSession));
}

}  // namespace kelvo
