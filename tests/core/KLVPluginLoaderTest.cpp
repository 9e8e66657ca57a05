#include "kelvo/Plugin.h"

#include <cmath>
#include <stdexcept>
#include <thread>

#include "core/CoreTest.h"
#include "kelvo/KelvoSDK.h"
#include "platform/ThreadSafety.h"

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

class ThrowsAtStart final : public Noting {
 public:
  void initialize(const Dictionary&) override { throw 7; }
};
KELVO_PLUGIN(ThrowsAtStart);

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

class Plugins : public CoreTest {
 protected:
  static void step(int number) { KelvoSDK::logAppEventWithName("Step", {{"number", number}}); }
  using Texts = std::vector<std::string>;

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
  EXPECT_EQ(taken(), (Texts{"started with gold", "started with gold", "Step 1", "Step 2"}));
  EXPECT_EQ(log.count("heard badly"), 2u);
  EXPECT_EQ(controller().getLifetimeCountForEventWithName("Step"), 2);

  // A class that is registered after its lookup is instantiated on registration.
  for (int time = 0; time < 2; ++time) {
    Plugin::registerClass("Late", []() -> std::shared_ptr<Plugin> { return std::make_shared<Noting>(); });
  }
  for (int i = 0; i < 10000 && loader.pluginDict().size() < 3; ++i) std::this_thread::sleep_for(1ms);
  EXPECT_EQ(loader.pluginDict(), (Dictionary{{"ThrowsAtEvents", true}, {"Noting", true}, {"Late", true}}));
  EXPECT_EQ(taken(), Texts{"started with gold"});
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

TEST_F(Plugins, TheServicesOfPlugInsWorkAndRefuseWrongArguments) {
  PluginServices::saveFrequencyInfo({{"shown", 1}}, "too early");
  EXPECT_EQ(log.count("<KLV ERROR> SDK Disabled - ignoring call"), 1u);
  start();
  class Keeping final : public EventListener {
   public:
    void onEvent(const Event& event) override { heard.push_back(event); }
    std::vector<Event> heard;
  };
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
  EXPECT_TRUE(log.waitFor("block's own"));
}

}  // namespace
}  // namespace kelvo::test
