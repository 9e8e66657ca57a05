#include "kelvo/Plugin.h"

#include <cmath>
#include <set>
#include <stdexcept>
#include <thread>

#include "core/CoreTest.h"
#include "kelvo/KelvoSDK.h"
#include "platform/MainQueue.h"
#include "platform/ThreadSafety.h"
#include "platform/UserDefaults.h"
#include "support/Eventually.h"

namespace kelvo::test {
namespace {

// The actions of the plug-ins below, in order.
Mutex mutex;
std::vector<std::string> happened GUARDED_BY(mutex);

void note(const std::string& what) {
  const Lock lock(mutex);
  happened.push_back(what);
}
std::vector<std::string> taken() {
  const Lock lock(mutex);
  return std::exchange(happened, {});
}

/// Notes its start, and each event "Step".
class Noting : public Plugin {
 public:
  void initialize(const Dictionary& configuration) override {
    note("started with " + description(configuration["plan"]));
    PluginServices::registerIdentifer(identifierKey(KLVEventType::app, "Step"), shared_from_this());
  }
  void onEvent(const Event& event) override { note(event.name + " " + description(event.attributes["number"])); }
};
KELVO_PLUGIN(Noting);

namespace acme {
class ThrowsAtStart final : public Noting {
 public:
  void initialize(const Dictionary& configuration) override {
    Noting::initialize(configuration);
    throw 7;
  }
};
}  // namespace acme
KELVO_PLUGIN(acme::ThrowsAtStart);

class ThrowsAtEvents final : public Noting {
 public:
  void onEvent(const Event&) override { throw std::runtime_error("heard badly"); }
};
KELVO_PLUGIN(ThrowsAtEvents);

std::promise<void> blocking, released;
class Blocking final : public Noting {
 public:
  void onEvent(const Event& event) override {
    if (event.attributes["number"] == Value(0)) {
      blocking.set_value();
      released.get_future().wait();
    }
    note("at last " + event.name);
  }
};
KELVO_PLUGIN(Blocking);

using Texts = std::vector<std::string>;

class Plugins : public CoreTest {
 protected:
  static void step(int number) { KelvoSDK::logAppEventWithName("Step", {{"number", number}}); }

  KLVPluginLoader loader;
};

TEST_F(Plugins, APlugInThatIsMissingOffLateOrThrowingLeavesTheOthersAlone) {
  start();
  Plugin::registerClass("ThrowsWhenMade", []() -> std::shared_ptr<Plugin> { throw std::runtime_error("made badly"); });
  loader.loadPlugins(std::nullopt, {});
  Dictionary plugins{{"Core", "shop"}, {"Blocking", false}};
  for (const char* name : {"Late", "Missing", "ThrowsWhenMade", "ThrowsAtStart", "ThrowsAtEvents", "Noting"}) {
    plugins.set(name, true);
  }
  loader.loadPlugins(plugins, {{"plan", "gold"}});
  EXPECT_EQ(loader.pluginDict(), (Dictionary{{"ThrowsAtEvents", true}, {"Noting", true}}));
  for (const char* line :
       {"<KLV WARN> No plugin found with key - Late", "<KLV WARN> No plugin found with key - Missing",
        "<KLV ERROR> Plugin ThrowsWhenMade could not be started: made badly",
        "<KLV ERROR> Plugin ThrowsAtStart could not be started", "<KLV DEBUG> Plugin with name: Noting given"}) {
    EXPECT_EQ(log.count(line), 1u) << line;
  }
  EXPECT_EQ(log.count("Plugin with name: Blocking given") + log.count("Plugin with name: Core given"), 0u);
  step(1);
  step(2);
  settle();
  EXPECT_EQ(taken(), (Texts{"started with gold", "started with gold", "started with gold", "Step 1", "Step 1", "Step 2",
                            "Step 2"}))
      << "a listener stays registered if its plug-in is dropped";
  EXPECT_EQ(log.count("heard badly"), 2u);
  EXPECT_EQ(controller().getLifetimeCountForEventWithName("Step"), 2);

  // A class that is registered after its lookup is instantiated on registration, and a missing one is reported later.
  for (int time = 0; time < 2; ++time) {
    Plugin::registerClass("Late", []() -> std::shared_ptr<Plugin> { return std::make_shared<Noting>(); });
  }
  EXPECT_TRUE(eventually([&] { return loader.pluginDict().size() == 3; }));
  EXPECT_EQ(loader.pluginDict(), (Dictionary{{"ThrowsAtEvents", true}, {"Noting", true}, {"Late", true}}));
  EXPECT_EQ(taken(), Texts{"started with gold"});
  EXPECT_EQ(log.count("<KLV ERROR> Ignoring a second plug-in class called Late"), 1u);
  ASSERT_TRUE(log.waitFor("<KLV ERROR> Plug-in Missing of the bundle is not loaded: "));
  KLVPluginLoader::reportMissing();
  EXPECT_EQ(log.count(", ThrowsWhenMade), and there is no usable libkelvo-Missing.so in "), 1u);
  EXPECT_EQ(log.count("of the bundle is not loaded"), 1u);
}

TEST_F(Plugins, WhileOneBlocksTheBusWaitsAndTheHostDoesNot) {
  start();
  loader.loadPlugins(Dictionary{{"Blocking", true}, {"Noting", true}}, {});
  taken();
  step(0);
  blocking.get_future().wait();
  for (int number = 1; number < 500; ++number) step(number);
  Application::willResignActive();
  std::promise<void> handled;
  controller().performInOrder([&] { handled.set_value(); });
  EXPECT_EQ(handled.get_future().wait_for(20s), std::future_status::ready) << "the controller's queue still runs";
  EXPECT_EQ(taken(), Texts()) << "no other listener receives an event meanwhile";
  released.set_value();
  settle();
  const auto all = taken();
  ASSERT_EQ(all.size(), 1000u);
  EXPECT_EQ(all[0], "at last Step");
  EXPECT_EQ(all[1], "Step 0");
  EXPECT_EQ(all.back(), "Step 499");
}

class Keeping final : public EventListener {
 public:
  void onEvent(const Event& event) override { heard.push_back(event); }
  std::vector<Event> heard;
};

TEST_F(Plugins, WhileCollectionIsDisabledTheServicesDoNothing) {
  writeFileForTest(library("com.kelvo.SDK.v2.rta.config.json"), R"({"P1": {"_id": "P1"}})");
  UserDefaults::standard().set("klv_session_count", 3);
  const auto callback = [](const HTTPAnswer&) { note("answered"); };
  PluginServices::saveFrequencyInfo({{"shown", 1}}, "id");
  PluginServices::persistPIDMIDDict({{"P1", "1"}}, "rta");
  PluginServices::getSyncDataForActionType("rta", "1", [] { note("synchronised"); });
  PluginServices::dispatchEvent(KLVEventType::nudge, "Nudge");
  PluginServices::getDataFromURLPath("/get", callback);
  PluginServices::postDataToURL("/post", Dictionary(), {}, callback);
  PluginServices::makeDeleteRequestToURLPath("/delete", {}, callback);
  EXPECT_EQ(log.count("<KLV ERROR> SDK Disabled - ignoring call"), 7u);
  EXPECT_EQ(PluginServices::getConfigForActionType("rta"), Dictionary());
  EXPECT_EQ(PluginServices::getLifetimeSessionCount() + PluginServices::getRetentionDay(), 0);
  EXPECT_EQ(PluginServices::getSessionId(), std::nullopt);
  start();
  settle();
  EXPECT_EQ(PluginServices::getConfigForActionType("rta").size(), 1u);
  EXPECT_EQ(PluginServices::getLifetimeSessionCount(), 4);
  EXPECT_EQ(PluginServices::getSessionId(), controller().getSessionId());
  UserDefaults::standard().set("klv_ret_day_count", 5);
  EXPECT_EQ(PluginServices::getRetentionDay(), 5);
  for (const char* path : {"/get", "/post", "/delete"}) EXPECT_TRUE(service.requests(path).empty()) << path;
  EXPECT_EQ(taken(), Texts());
}

TEST_F(Plugins, TheirEventsAreDeliveredStoredAndSentByType) {
  start();
  const auto listener = std::make_shared<Keeping>();
  const Value shown = Dictionary{{"at", 1}};
  for (int number = 0; number <= 21; ++number) {
    const auto type = static_cast<KLVEventType>(number);
    PluginServices::registerForEventWithType(type, listener);
    PluginServices::dispatchEvent(type, "No. " + std::to_string(number), {{"shown", shown}, {"nothing", nullptr}});
  }
  PluginServices::dispatchEvent(KLVEventType::survey, {});
  Application::willResignActive();
  settle();
  Texts heard, stored;
  for (const Event& event : listener->heard) {
    if (event.attributes["shown"] != shown && event.name != "Survey") continue;  // the library's own
    const bool isNamed = event.name == "No. " + std::to_string(static_cast<int>(event.type));
    heard.push_back(std::string(stringFromType(event.type)) + (isNamed ? "" : " " + event.name.substr(0, 6)));
    EXPECT_FALSE(event.attributes.contains("nothing"));
  }
  ASSERT_EQ(heard.size(), 12u);
  EXPECT_EQ(std::exchange(heard[10], "ApplicationCrash").size(), 23u) << "a crash has a random name";
  EXPECT_EQ(heard, (Texts{"UserInteraction", "Push", "InApp", "Inline", "Nudge", "InlineText", "InlineCoachmark",
                          "Walkthrough", "Screenshot", "Survey", "ApplicationCrash", "Survey Survey"}));
  EXPECT_EQ(log.count("<KLV ERROR> Plug-ins dispatch no events of type "), 11u);
  EXPECT_EQ(log.count("<KLV ERROR> Plug-ins dispatch no events of type App; ignoring No. 4"), 1u);
  const auto rows = controller().getEventsBetween(1, 99, controller().getSessionId(), KLVEventType::system).value();
  for (const Dictionary& row : rows) {
    if (row["type"] != Value("App") && row["type"] != Value("System")) stored.push_back(description(row["type"]));
  }
  EXPECT_EQ(stored, (Texts{"UserInteraction", "Push", "InlineText", "InlineCoachmark", "Walkthrough", "Screenshot",
                           "ApplicationCrash"}));
  ASSERT_TRUE(service.waitForChunks(1));
  const Dictionary details = *(*service.chunks()[0].asDictionary())["chunk_details"].asDictionary();
  EXPECT_EQ(description(details["user_events"]).rfind(R"([{"shown":{"at":1},"id":"No. 3","time":)", 0), 0u);
  EXPECT_EQ(description(details["incidents"])
                .rfind(R"([{"incident_specific_details":{"error_message":"No. 20","shown":{"at":1}},)", 0),
            0u);
}

TEST_F(Plugins, TheirRequestsObeyTheLibrarysRules) {
  start();
  service.answer("/thing", collector::Script(418, "short"));
  std::promise<HTTPAnswer> got, posted, deleted, refused;
  const auto into = [](std::promise<HTTPAnswer>& promise) {
    return [&](const HTTPAnswer& answer) { promise.set_value(answer); };
  };
  PluginServices::getDataFromURLPath("/thing?a=b c", into(got));
  PluginServices::postDataToURL("/thing", {{"n", 1}, {"bad", std::nan("")}}, {{"X-Own", "yes"}}, into(posted));
  PluginServices::makeDeleteRequestToURLPath("/thing", {{"X-Own", "yes"}}, into(deleted));
  PluginServices::getDataFromURLPath("http://192.0.2.1/?https:", into(refused));
  const HTTPAnswer answer = got.get_future().get();
  EXPECT_EQ(std::to_string(answer.status) + answer.body + answer.error, "418short");
  posted.get_future().wait();
  deleted.get_future().wait();
  const HTTPAnswer error = refused.get_future().get();
  EXPECT_EQ(error.status, 0);
  EXPECT_NE(error.error, "");
  std::set<std::string> requests;
  for (const auto& request : service.requests("/thing")) {
    requests.insert(request.method + "?" + request.query + " " + request.header("x-own") + " " + request.body);
  }
  EXPECT_EQ(requests, (std::set<std::string>{"GET?a=b%20c  ", R"(POST? yes {"n":1})", "DELETE? yes "}));

  PluginServices::getDataFromURLPath(nullptr, {});
  PluginServices::makeDeleteRequestToURLPath(nullptr, {}, {});
  PluginServices::postDataToURL("/thing", {}, {}, {});
  EXPECT_EQ(log.count("<KLV WARN> URL/requestMethod is nil"), 3u);
  PluginServices::getDataFromURLPath("/thing", {});
  PluginServices::getDataFromURLPath("/thing", [](const HTTPAnswer&) { throw std::runtime_error("own"); });
  EXPECT_TRUE(log.waitFor("A task on com.kelvo.concurrent.KLVPostman.callbacks threw: own"));
}

TEST_F(Plugins, TheServicesOfPlugInsWorkAndRefuseWrongArguments) {
  start();
  const auto listener = std::make_shared<Keeping>();
  const std::string key = identifierKey(KLVEventType::app, "Step");
  PluginServices::registerIdentifer(key, nullptr);
  for (int time = 0; time < 2; ++time) PluginServices::registerIdentifer(key, listener);
  step(1);
  settle();
  PluginServices::deRegisterIdentifer(key, listener);
  step(2);
  settle();
  ASSERT_EQ(listener->heard.size(), 1u);
  EXPECT_EQ(listener->heard[0].type, KLVEventType::app);
  Dictionary attributes = listener->heard[0].attributes;
  attributes.remove("time");
  EXPECT_EQ(attributes, (Dictionary{{"number", 1}, {"klv_lt_count", 0}, {"klv_lt_count_slot", "0"}}));
  EXPECT_EQ(listener.use_count(), 1) << "the bus has released it";

  PluginServices::saveFrequencyInfo({{"shown", 1}}, "caf\xe9");
  const auto saveAll = [](int plugin) {
    for (int i = 0; i < 50; ++i) PluginServices::saveFrequencyInfo({{"shown", i}}, std::to_string(100 * plugin + i));
  };
  std::thread other(saveAll, 1);
  saveAll(2);
  other.join();
  for (int plugin : {100, 200}) {
    for (int i = 0; i < 50; ++i) {
      ASSERT_EQ(PluginServices::retrieveFrequencyConfigWithIdentifier(std::to_string(plugin + i)),
                (Dictionary{{"shown", i}}));
    }
  }
  EXPECT_EQ(PluginServices::retrieveFrequencyConfigWithIdentifier("caf\xe9"), (Dictionary{{"shown", 1}}))
      << "an identifier is repaired the same way on both calls";
  PluginServices::persistPIDMIDDict({{"P1", "1"}}, "rta");
  PluginServices::persistPIDMIDDict({{"P2", "1"}}, "anything");
  PluginServices::persistPIDMIDDict(Dictionary(), "rta");
  EXPECT_EQ(log.count("<KLV ERROR> Invalid pid mid data sent for saving"), 1u);
  EXPECT_EQ(PluginServices::getPIDMIDDictForType("rta"), (Dictionary{{"P1", "1"}}));
  EXPECT_EQ(PluginServices::getPIDMIDDictForType("survey"), (Dictionary{{"P2", "1"}}));

  PluginServices::executeAfterDelay(1, {});
  PluginServices::executeAfterDelay(std::nan(""), [] { throw std::runtime_error("block's own"); });
  EXPECT_TRUE(log.waitFor("A task on com.kelvo.serial.controller threw: block's own"));

  std::promise<void> ticked;
  PluginServices::registerForTimerNotificationWithInterval(0, [] { note("never"); });
  PluginServices::registerForTimerNotificationWithInterval(0.001, [&, ticks = 0]() mutable {
    EXPECT_TRUE(MainQueue::isCurrent());
    if (++ticks == 3) ticked.set_value();
  });
  EXPECT_EQ(ticked.get_future().wait_for(20s), std::future_status::ready);
  EXPECT_EQ(taken(), Texts());
  PluginServices::setActionInProgress(true);
  EXPECT_TRUE(PluginServices::actionInProgress());
}

}  // namespace
}  // namespace kelvo::test
