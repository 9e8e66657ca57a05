#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/DispatchQueue.h"
#include "platform/ThreadSafety.h"
#include "records/KLVEvent.h"

namespace kelvo {

/// The controller methods that the bus calls. Thread: the bus's queue.
class KLVEventHandlerDelegate {
 public:
  virtual void processAggregateEventWithEvent(const std::shared_ptr<KLVEvent>& event) = 0;
  virtual void saveEvent(const std::shared_ptr<KLVEvent>& event) = 0;
  virtual void saveLifetimeEvent(const std::shared_ptr<KLVEvent>& event) = 0;

 protected:
  ~KLVEventHandlerDelegate() = default;  // never deleted through this type
};

/// The event bus. It classifies each event by three lists of names, has it saved or counted, and delivers it: first to
/// the listeners of its type, then to the listeners of the exact event.
///
/// Classification and deliveries run on one serial queue. Each delivery is a task of its own, so an event that is
/// already queued is classified before an earlier event is delivered. The bus owns its listeners. A listener is
/// registered at most once per key. Thread-safe; only `catchUp` and `waitUntilDelivered` block.
class KLVEventHandler {
 public:
  using Listener = std::shared_ptr<KLVEventListener>;

  /// `delegate` must outlive the bus.
  explicit KLVEventHandler(KLVEventHandlerDelegate& delegate);

  /// Ignores a null listener, like all four.
  void registerForEventType(KLVEventType type, Listener listener);
  /// Kept: does nothing unless `listener` is also registered by identifier under the type's name.
  void deregisterForEventType(KLVEventType type, Listener listener);
  /// `key` is an `identifierKey`.
  void registerIdentifer(std::string key, Listener listener);
  void deRegisterIdentifer(std::string key, Listener listener);

  void enqueueEvent(std::shared_ptr<KLVEvent> event);
  /// Blocks while hundreds of events wait to be classified, unless one waits for a listener or is with it. Must not be
  /// called by a listener.
  void catchUp();
  /// Sets the event's type by the lists. Returns false if the event is ignored.
  [[nodiscard]] bool classify(KLVEvent& event) const;

  /// The three lists of event names. A list is nullopt at first, and then matches no event. Elements that are not texts
  /// match no event. No list matches the library's own events, which make it deliver: "klv_app_opened", FOREGROUND,
  /// BACKGROUND, and the signals of sessions and chunks. A list that names one costs a WARN line.
  void setEventsToBeIgnored(std::optional<Array> names) { eventsToBeIgnored_.set(std::move(names)); }
  void setClientEvents(std::optional<Array> names) { clientEvents_.set(std::move(names)); }
  void setAggregateEvents(std::optional<Array> names) { aggregateEvents_.set(std::move(names)); }
  [[nodiscard]] std::optional<Array> eventsToBeIgnored() const { return eventsToBeIgnored_.names(); }
  [[nodiscard]] std::optional<Array> clientEvents() const { return clientEvents_.names(); }
  [[nodiscard]] std::optional<Array> aggregateEvents() const { return aggregateEvents_.names(); }

  /// Blocks until every event enqueued so far is classified and delivered. Must not be called by a listener.
  void waitUntilDelivered();
  /// Calls `done` on the bus's queue once every event enqueued so far is classified and submitted for saving.
  void whenClassified(std::function<void()> done) { queue_.async(std::move(done)); }
  /// Calls `done` on the bus's queue once the listeners have received every event enqueued so far, and before they
  /// receive any later one.
  void whenDelivered(std::function<void()> done);

 private:
  using Table = std::unordered_map<std::string, std::vector<Listener>>;

  /// One of the three lists. It is replaced as a whole. Thread-safe.
  class NameList {
   public:
    /// `purpose` is for log lines, such as "ignored".
    explicit NameList(const char* purpose) : purpose_(purpose) {}
    void set(std::optional<Array> names) EXCLUDES(mutex_);
    [[nodiscard]] std::optional<Array> names() const EXCLUDES(mutex_);
    [[nodiscard]] bool contains(const std::string& name) const EXCLUDES(mutex_);

   private:
    const char* const purpose_;
    mutable Mutex mutex_;
    std::optional<Array> names_ GUARDED_BY(mutex_);
    std::unordered_set<std::string> lookup_ GUARDED_BY(mutex_);  // the texts of names_
  };

  void save(const std::shared_ptr<KLVEvent>& event) REQUIRES(queue_);
  /// Queues one delivery for each listener under `key`.
  void deliver(const std::shared_ptr<KLVEvent>& event, const Table& table, const std::string& key) REQUIRES(queue_);
  static void add(Table& table, const std::string& key, const Listener& listener);
  static void remove(Table& table, const std::string& key, const Listener& listener);

  KLVEventHandlerDelegate& delegate_;
  NameList eventsToBeIgnored_{"ignored"};
  NameList clientEvents_{"client"};
  NameList aggregateEvents_{"aggregate"};

  // Queue: queue_.
  Table objectsRegisteredOnType_ GUARDED_BY(queue_);
  Table objectsRegisteredOnIdentifier_ GUARDED_BY(queue_);

  std::atomic<std::size_t> waitingEvents_{0};  ///< that are not classified yet
  std::atomic<std::size_t> waitingDeliveries_{0};
  DispatchQueue queue_{"com.kelvo.serial.KLVEventHandler"};
};

}  // namespace kelvo
