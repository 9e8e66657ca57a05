#include "events/KLVEventHandler.h"

#include <algorithm>
#include <utility>

#include "platform/ThreadPool.h"
#include "util/KLVLedger.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

/// About half a megabyte of memory.
constexpr std::size_t kMostWaitingEvents = 256;

/// The names of the library's own events, as they may stand in a list.
constexpr std::string_view kOwnNames[] = {kKLVAppOpened, kKLVForeground, kKLVBackground, "Session", "Chunk"};

/// Returns whether components of the library listen to this event. Without it, chunks would no longer be cut, or not be
/// resent.
bool isOwn(KLVEventType type, const std::string& name) {
  switch (type) {
    case KLVEventType::system:
    case KLVEventType::session:
    case KLVEventType::chunk: return true;
    case KLVEventType::app: return name == kKLVAppOpened;
    default: return false;
  }
}

/// Returns those of `names` that are the library's own, separated by commas.
std::string ownNamesIn(const std::unordered_set<std::string>& names) {
  std::string own;
  for (const std::string_view name : kOwnNames) {
    if (names.count(std::string(name)) > 0) own.append(own.empty() ? "" : ", ").append(name);
  }
  return own;
}

}  // namespace

KLVEventHandler::KLVEventHandler(KLVEventHandlerDelegate& delegate) : delegate_(delegate) {}

void KLVEventHandler::registerForEventType(KLVEventType type, Listener listener) {
  queue_.async([this, type, listener = std::move(listener)] {
    queue_.assertCurrent();
    add(objectsRegisteredOnType_, std::string(stringFromType(type)), listener);
  });
}

void KLVEventHandler::deregisterForEventType(KLVEventType type, Listener listener) {
  queue_.async([this, type, listener = std::move(listener)] {
    queue_.assertCurrent();
    const std::string key(stringFromType(type));
    const auto byIdentifier = objectsRegisteredOnIdentifier_.find(key);
    if (byIdentifier == objectsRegisteredOnIdentifier_.end()) return;
    const auto& listeners = byIdentifier->second;
    if (std::find(listeners.begin(), listeners.end(), listener) == listeners.end()) return;
    remove(objectsRegisteredOnType_, key, listener);
  });
}

void KLVEventHandler::registerIdentifer(std::string key, Listener listener) {
  queue_.async([this, key = std::move(key), listener = std::move(listener)] {
    queue_.assertCurrent();
    add(objectsRegisteredOnIdentifier_, key, listener);
  });
}

void KLVEventHandler::deRegisterIdentifer(std::string key, Listener listener) {
  queue_.async([this, key = std::move(key), listener = std::move(listener)] {
    queue_.assertCurrent();
    remove(objectsRegisteredOnIdentifier_, key, listener);
  });
}

void KLVEventHandler::enqueueEvent(std::shared_ptr<KLVEvent> event) {
  waitingEvents_.fetch_add(1, std::memory_order_relaxed);
  queue_.async([this, event = std::move(event)] {
    queue_.assertCurrent();
    waitingEvents_.fetch_sub(1, std::memory_order_relaxed);
    const pool::ShortTask shortTask;  // listeners have tasks of their own
    if (!classify(*event)) {
      KLVLedger::shared().add(KLVLedgerEntry::ignored);
      return event->call().finish();
    }
    save(event);
    deliver(event, objectsRegisteredOnType_, std::string(stringFromType(event->eventType())));
    deliver(event, objectsRegisteredOnIdentifier_, identifierKey(event->eventType(), event->identifier()));
  });
}

void KLVEventHandler::catchUp() {
  if (waitingEvents_.load(std::memory_order_relaxed) <= kMostWaitingEvents) return;
  if (waitingDeliveries_ == 0) queue_.sync([] {});  // a listener may take its time
}

void KLVEventHandler::whenDelivered(std::function<void()> done) {
  // The first task runs when every event so far is classified, and its deliveries are queued.
  queue_.async([this, done = std::move(done)] { queue_.async(done); });
}

void KLVEventHandler::waitUntilDelivered() {
  queue_.sync([] {});  // now every event is classified, and its deliveries are queued
  queue_.sync([] {});  // now they are delivered
}

bool KLVEventHandler::classify(KLVEvent& event) const {
  const std::string name = event.identifier();
  if (isOwn(event.eventType(), name)) return true;
  if (event.eventType() == KLVEventType::client || clientEvents_.contains(name)) {
    KLV_DEBUG("Client event found");
    event.setEventType(KLVEventType::client);
    return true;
  }
  if (event.eventType() == KLVEventType::aggregate || aggregateEvents_.contains(name)) {
    KLV_DEBUG("Aggregate event found");
    event.setEventType(KLVEventType::aggregate);
    return true;
  }
  if (!eventsToBeIgnored_.contains(name)) return true;
  KLV_DEBUG("Stop event found, ignoring it");
  return false;
}

void KLVEventHandler::save(const std::shared_ptr<KLVEvent>& event) {
  const KLVEventType type = event->eventType();
  if (type == KLVEventType::client) {
    KLV_DEBUG("Not saving, Client event found");
  } else if (type == KLVEventType::aggregate) {
    KLV_DEBUG("Saving aggregate event found");
    delegate_.processAggregateEventWithEvent(event);
  } else if (event->isStorable()) {
    delegate_.saveEvent(event);
  } else {
    KLVLedger::shared().add(KLVLedgerEntry::forPlugins);
  }
  if (type == KLVEventType::app || type == KLVEventType::client) delegate_.saveLifetimeEvent(event);
}

void KLVEventHandler::deliver(const std::shared_ptr<KLVEvent>& event, const Table& table, const std::string& key) {
  const auto found = table.find(key);
  if (found == table.end()) return;
  for (const Listener& listener : found->second) {
    ++waitingDeliveries_;
    queue_.async([this, event, listener] {
      struct End {
        std::atomic<std::size_t>& waiting;
        ~End() { --waiting; }
      } const end{waitingDeliveries_};
      listener->onEvent(event);
    });
  }
}

void KLVEventHandler::add(Table& table, const std::string& key, const Listener& listener) {
  auto& listeners = table[key];
  if (listener == nullptr || std::find(listeners.begin(), listeners.end(), listener) != listeners.end()) return;
  listeners.push_back(listener);
}

void KLVEventHandler::remove(Table& table, const std::string& key, const Listener& listener) {
  const auto found = table.find(key);
  if (found == table.end() || listener == nullptr) return;
  auto& listeners = found->second;
  listeners.erase(std::remove(listeners.begin(), listeners.end(), listener), listeners.end());
}

void KLVEventHandler::NameList::set(std::optional<Array> names) {
  std::unordered_set<std::string> lookup;
  for (const Value& name : names.value_or(Array())) {
    if (const auto* text = name.get<std::string>()) lookup.insert(*text);
  }
  if (const std::string own = ownNamesIn(lookup); !own.empty()) {
    KLV_WARN("The list of {} events names {}: the library keeps its own events of that name", purpose_, own);
  }
  const Lock lock(mutex_);
  names_.swap(names);
  lookup_.swap(lookup);
}

std::optional<Array> KLVEventHandler::NameList::names() const {
  const Lock lock(mutex_);
  return names_;
}

bool KLVEventHandler::NameList::contains(const std::string& name) const {
  const Lock lock(mutex_);
  return lookup_.count(name) > 0;
}

}  // namespace kelvo
