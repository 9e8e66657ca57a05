#include "events/KLVEventHandler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "records/KLVEvents.h"
#include "support/LogCapture.h"

namespace kelvo::test {
namespace {

/// Records what the bus saves and delivers, in order: one text each.
class Recorder final : public KLVEventHandlerDelegate {
 public:
  void processAggregateEventWithEvent(const std::shared_ptr<KLVEvent>& event) override { add("counted", *event); }
  void saveEvent(const std::shared_ptr<KLVEvent>& event) override { add("saved", *event); }
  void saveLifetimeEvent(const std::shared_ptr<KLVEvent>& event) override { add("for life", *event); }
  void add(const std::string& action, const KLVEvent& event) { all.push_back(action + " " + event.identifier()); }
  std::vector<std::string> all;
};

class Listener final : public KLVEventListener {
 public:
  Listener(std::string name, Recorder& recorder) : name_(std::move(name)), recorder_(recorder) {}
  void onEvent(const std::shared_ptr<KLVEvent>& event) override { recorder_.add(name_, *event); }

 private:
  std::string name_;
  Recorder& recorder_;
};

class EventHandler : public testing::Test {
 protected:
  std::shared_ptr<KLVEvent> event(KLVEventType type, const std::string& name) {
    auto made = std::make_shared<KLVEvent>(type);
    made->setIdentifier(name);
    return made;
  }
  std::shared_ptr<Listener> listener(const std::string& name) { return std::make_shared<Listener>(name, recorder); }
  /// Waits until the queue is empty; returns the recorded texts and clears them.
  std::vector<std::string> happened() {
    for (int pass = 0; pass < 2; ++pass) {  // the events of the first pass queue the deliveries
      std::promise<void> done;
      bus.whenClassified([&] { done.set_value(); });
      done.get_future().wait();
    }
    return std::exchange(recorder.all, {});
  }
  using Texts = std::vector<std::string>;

  Recorder recorder;
  KLVEventHandler bus{recorder};
};

TEST_F(EventHandler, ClassifiesByTheTypeAndThenByTheLists) {
  bus.setClientEvents(Array{"client", "clientAndStop"});
  bus.setAggregateEvents(Array{"agg", 7});
  bus.setEventsToBeIgnored(Array{"stop", "clientAndStop", "aggAndStop"});
  const auto after = [this](KLVEventType type, const char* name) {
    bus.enqueueEvent(event(type, name));
    return happened();
  };
  EXPECT_EQ(after(KLVEventType::app, "plain"), (Texts{"saved plain", "for life plain"}));
  EXPECT_EQ(after(KLVEventType::app, "clientAndStop"), Texts{"for life clientAndStop"});
  EXPECT_EQ(after(KLVEventType::app, "agg"), Texts{"counted agg"});
  EXPECT_EQ(after(KLVEventType::aggregate, "aggAndStop"), Texts{"counted aggAndStop"});
  EXPECT_EQ(after(KLVEventType::app, "stop"), Texts());
  bus.enqueueEvent(std::make_shared<KLVSessionEvent>());
  EXPECT_EQ(happened(), Texts()) << "a signal is never saved";
}

TEST_F(EventHandler, NoListStopsOrChangesTheEventsThatTheLibraryNeeds) {
  const struct {
    KLVEventType type;
    const char* name;
  } own[] = {{KLVEventType::app, "klv_app_opened"},
             {KLVEventType::system, "BACKGROUND"},
             {KLVEventType::system, "FOREGROUND"},
             {KLVEventType::session, "Session"},
             {KLVEventType::chunk, "Chunk"}};
  Array names;
  for (const auto& each : own) names.append(each.name);
  const LogCapture log;
  const auto set = {&KLVEventHandler::setClientEvents, &KLVEventHandler::setAggregateEvents,
                    &KLVEventHandler::setEventsToBeIgnored};
  for (const auto& each : own) bus.registerIdentifer(identifierKey(each.type, each.name), listener("delivered"));
  for (const auto list : set) {
    (bus.*list)(names);
    for (const auto& each : own) {
      bus.enqueueEvent(event(each.type, each.name));
      Texts expected = {"saved " + std::string(each.name)};
      if (each.type == KLVEventType::app) expected.push_back("for life " + std::string(each.name));
      expected.push_back("delivered " + std::string(each.name));
      EXPECT_EQ(happened(), expected);
    }
    bus.enqueueEvent(event(KLVEventType::app, "BACKGROUND"));
    EXPECT_EQ(happened().size(), list == &KLVEventHandler::setEventsToBeIgnored ? 0U : 1U)
        << "the host's own event of that name obeys the list";
    (bus.*list)(std::nullopt);
  }
  EXPECT_EQ(log.count("<KLV WARN> The list of "), 3U);
  EXPECT_EQ(log.count("ignored events names klv_app_opened, FOREGROUND, BACKGROUND, Session, Chunk: "), 1U);
}

TEST_F(EventHandler, DeliversToTypeListenersFirstAndToTheExactEventUnderItsNewType) {
  bus.setClientEvents(Array{"Sale"});
  const auto twice = listener("by type");
  bus.registerIdentifer("5___Sale", listener("exact"));
  bus.registerIdentifer("4___Sale", listener("exact under the old type"));
  bus.registerForEventType(KLVEventType::client, twice);
  bus.registerForEventType(KLVEventType::client, twice);
  bus.registerForEventType(KLVEventType::client, nullptr);
  std::promise<void> bothAreQueued;
  bus.whenClassified([&] { bothAreQueued.get_future().wait(); });
  bus.enqueueEvent(event(KLVEventType::app, "Sale"));
  bus.enqueueEvent(event(KLVEventType::navigation, "Home"));
  bothAreQueued.set_value();
  EXPECT_EQ(happened(), (Texts{"for life Sale", "saved Home", "by type Sale", "exact Sale"}))
      << "both events are classified before the first is delivered";
}

TEST(BusyEventHandler, HoldsUpAProducerOnlyWhileHundredsOfEventsWait) {
  struct Counter final : KLVEventHandlerDelegate {
    void processAggregateEventWithEvent(const std::shared_ptr<KLVEvent>&) override {}
    void saveEvent(const std::shared_ptr<KLVEvent>&) override { ++saved; }
    void saveLifetimeEvent(const std::shared_ptr<KLVEvent>&) override {}
    std::atomic<int> saved{0};
  } counter;
  KLVEventHandler bus(counter);
  const auto enqueue = [&bus](int count) {
    for (int i = 0; i < count; ++i) bus.enqueueEvent(std::make_shared<KLVEvent>(KLVEventType::app));
  };
  std::promise<void> release;
  bus.whenClassified([held = release.get_future().share()] { held.wait(); });
  enqueue(200);
  bus.catchUp();  // must not block, or nobody releases the queue
  enqueue(9800);
  release.set_value();
  bus.catchUp();
  EXPECT_GE(counter.saved, 9000);
  bus.waitUntilDelivered();
}

TEST_F(EventHandler, RemovesIdentifierListenersButKeepsListenersRegisteredByTypeAlone) {
  const auto both = listener("both");
  const auto typeOnly = listener("type only");
  bus.registerForEventType(KLVEventType::navigation, both);
  bus.registerForEventType(KLVEventType::navigation, typeOnly);
  bus.registerIdentifer("Navigation", both);
  bus.registerIdentifer("2___Home", both);
  bus.deRegisterIdentifer("2___Home", both);
  bus.deregisterForEventType(KLVEventType::navigation, both);
  bus.deregisterForEventType(KLVEventType::navigation, typeOnly);
  bus.enqueueEvent(event(KLVEventType::navigation, "Home"));
  EXPECT_EQ(happened(), (Texts{"saved Home", "type only Home"}));
}

}  // namespace
}  // namespace kelvo::test
