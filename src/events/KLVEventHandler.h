#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/DispatchQueue.h"
#include "records/KLVEvent.h"

namespace kelvo {

/// What the bus asks of the controller; every call comes on the bus's queue.
class KLVEventHandlerDelegate {
 public:
  virtual void processAggregateEventWithEvent(const std::shared_ptr<KLVEvent>& event) = 0;
  virtual void saveEvent(const std::shared_ptr<KLVEvent>& event) = 0;
  virtual void saveLifetimeEvent(const std::shared_ptr<KLVEvent>& event) = 0;

 protected:
  ~KLVEventHandlerDelegate() = default;  // never deleted through this type
};

/// The event bus: classifies every event by three lists of names, has it saved or counted, and delivers it to the
/// listeners of its type and then to those of the exact event.
///
/// Every operation returns at once. The tables, the classification and all deliveries live on one serial queue;
/// each delivery is a task of its own, so events that are enqueued earlier are classified first. Listeners are held
/// strongly, each at most once under a key.
class KLVEventHandler {
 public:
  using Listener = std::shared_ptr<KLVEventListener>;

  /// `delegate` must outlive the bus.
  explicit KLVEventHandler(KLVEventHandlerDelegate& delegate);

  void registerForEventType(KLVEventType type, Listener listener);
  /// Kept: removes a listener only if it is also registered by identifier under the type's name, so one that is
  /// registered by type alone stays.
  void deregisterForEventType(KLVEventType type, Listener listener);
  /// `key` is an `identifierKey`.
  void registerIdentifer(std::string key, Listener listener);
  void deRegisterIdentifer(std::string key, Listener listener);

  void enqueueEvent(std::shared_ptr<KLVEvent> event);

  /// Names of events; nullopt (at first) matches nothing. Elements that are no texts match nothing either.
  void setEventsToBeIgnored(std::optional<Array> names) { eventsToBeIgnored_.set(std::move(names)); }
  void setClientEvents(std::optional<Array> names) { clientEvents_.set(std::move(names)); }
  void setAggregateEvents(std::optional<Array> names) { aggregateEvents_.set(std::move(names)); }
  [[nodiscard]] std::optional<Array> eventsToBeIgnored() const { return eventsToBeIgnored_.names(); }
  [[nodiscard]] std::optional<Array> clientEvents() const { return clientEvents_.names(); }
  [[nodiscard]] std::optional<Array> aggregateEvents() const { return aggregateEvents_.names(); }

  /// Waits until all that was enqueued so far is classified and delivered. Not from a listener.
  void waitUntilDelivered();
  /// Calls `done` on the bus's queue once all that was enqueued so far is classified and submitted for saving.
  void whenClassified(std::function<void()> done) { queue_.async(std::move(done)); }

 private:
  using Table = std::unordered_map<std::string, std::vector<Listener>>;

  /// One of the lists: replaced as a whole from any thread, read on the queue.
  class NameList {
   public:
    void set(std::optional<Array> names);
    [[nodiscard]] std::optional<Array> names() const;
    [[nodiscard]] bool contains(const std::string& name) const;

   private:
    mutable std::mutex mutex_;
    std::optional<Array> names_;
    std::unordered_set<std::string> lookup_;
  };

  /// False when the event is to be ignored.
  bool classify(KLVEvent& event) const;
  void save(const std::shared_ptr<KLVEvent>& event);
  void deliver(const std::shared_ptr<KLVEvent>& event, const Table& table, const std::string& key);
  static void add(Table& table, const std::string& key, const Listener& listener);
  static void remove(Table& table, const std::string& key, const Listener& listener);

  KLVEventHandlerDelegate& delegate_;
  NameList eventsToBeIgnored_;
  NameList clientEvents_;
  NameList aggregateEvents_;
  Table objectsRegisteredOnType_;
  Table objectsRegisteredOnIdentifier_;
  DispatchQueue queue_{"com.kelvo.serial.KLVEventHandler"};
};

}  // namespace kelvo
