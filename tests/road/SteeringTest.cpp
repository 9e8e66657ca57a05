#include <filesystem>

#include "road/Road.h"

namespace kelvo::test {
namespace {

using Action = collector::ServiceState::Action;

constexpr const char* kActionsFile = "com.kelvo.SDK.v2.rta.config.json";

TEST_F(Road, ActionsFollowTheServiceAndTheCallbackRunsIfThereAreAny) {
  const auto synced = [this] {
    auto host = launch();
    host.untilReady().call("sync", R"("type": "rta", "version": "2", "seconds": 10)");
    EXPECT_EQ(host.quit(), 0) << host.errors();
    return host.output().substr(0, host.output().find('\n'));
  };
  const std::string came = R"({"sync":"rta","came":true})";
  service.state().setActions("rta", {{"P1", "1", {{"n", 1}}}, {"P2", "1", {{"n", 2}}}});
  EXPECT_EQ(synced(), came);
  service.state().setActions("rta", {{"P2", "2", {{"n", 3}}}});
  EXPECT_EQ(synced(), came);
  EXPECT_EQ(contentOf(library(kActionsFile)),
            R"({"P2-1":{"n":2,"_id":"P2-1","pid":"P2"},"P2-2":{"n":3,"_id":"P2-2","pid":"P2"}})");
  ASSERT_EQ(service.requests("/v2/sync/shop/rta").size(), 2u);
  EXPECT_EQ(count(service.requests("/v2/sync/shop/rta")[1].query, "&version=2&platform=ios&pids=P2"), 1u);

  service.state().setActions("rta", {});
  auto host = launch();
  host.untilReady().call("sync", R"("type": "rta", "seconds": 0.3)");
  EXPECT_EQ(host.quit(), 0);
  EXPECT_EQ(count(host.output(), R"({"sync":"rta","came":false})"), 1u);
}

class PluginHost : public Road {
 protected:
  /// Writes a bundle with the application id "in-app" that enables `plugins`.
  static std::string bundleWith(const std::string& plugins) {
    return bundle("<key>Core</key><string>in-app</string>" + plugins);
  }

  static std::string bundleWithEcho(const std::string& more = {}) {
    const std::string bundle = bundleWith("<key>EchoPlugin</key><true/>" + more);
    std::filesystem::copy(KELVO_ECHO_PLUGIN, bundle + "/libkelvo-EchoPlugin.so");
    return bundle;
  }

  Program runExample(const std::string& bundle, Program::Environment environment = {}) {
    environment.insert({{"KELVO_BUNDLE", bundle}, {"LD_LIBRARY_PATH", home()}});
    return run({KELVO_IN_APP}, environment);
  }
};

TEST_F(PluginHost, TheExampleShowsTheServicesMessagesUpToTheirLimit) {
  service.state().setActions("rta", {{"P1", "1", {{"event", "Buy"}, {"message", "Thanks"}, {"most", 2}}},
                                     {"P2", "1", {{"event", "Enter"}, {"message", "Welcome"}}},
                                     {"P3", "1", {{"event", "Leave"}, {"message", "Bye"}}}});
  service.state().setClientEvents({"Leave"}, {}, {});
  const std::string bundle = bundleWith("<key>InAppPlugin</key><true/>");
  const auto messages = [&](int buys) {
    auto host = runExample(bundle);
    // The rules take effect a while after the start.
    EXPECT_TRUE(eventually([&] {
      host.writeLine("Enter");
      return count(host.output(), "Message: Welcome") > 0;
    }));
    for (int i = 0; i < buys; ++i) host.writeLine("Buy");
    host.writeLine("Leave");
    EXPECT_TRUE(host.waitForOutput("Message: Bye"));
    host.closeInput();
    EXPECT_EQ(host.wait(), 0) << host.errors();
    return count(host.output(), "Message: Thanks");
  };
  EXPECT_EQ(messages(1), 1u);
  EXPECT_EQ(messages(3), 1u) << "the limit is two for all launches";
  EXPECT_EQ(messages(1), 0u);
}

TEST_F(PluginHost, APluginInASharedObjectIsLoadedFromTheBundleOnly) {
  const std::string bundle = bundleWith(
      "<key>Broken</key><true/><key>Unresolved</key><true/><key>EchoPlugin</key><true/>"
      "<key>x/../Outside</key><true/><key>Elsewhere</key><true/>");
  std::filesystem::create_directories(bundle + "/libkelvo-x");
  std::filesystem::copy(KELVO_ECHO_PLUGIN, bundle + "/libkelvo-EchoPlugin.so");
  std::filesystem::copy(KELVO_UNRESOLVED_PLUGIN, bundle + "/libkelvo-Unresolved.so");
  // A failed load logs a line, so each attempt to load one of these files shows.
  for (const auto& file : {bundle + "/libkelvo-Broken.so", bundle + "/Outside.so", home() + "/libkelvo-Elsewhere.so"}) {
    writeFileForTest(file, "no object");
  }
  auto host = runExample(bundle);
  ASSERT_TRUE(host.waitForError("initialized!"));
  host.writeLine("Hello");
  EXPECT_TRUE(host.waitForOutput("Echo: Hello\n")) << host.errors();
  host.closeInput();
  EXPECT_EQ(host.wait(), 0) << host.errors();
  EXPECT_EQ(count(host.errors(), "libkelvo-Broken.so could not be loaded: "), 1u);
  EXPECT_EQ(count(host.errors(), "libkelvo-Unresolved.so could not be loaded: "), 1u);
  EXPECT_EQ(count(host.errors(), "could not be loaded"), 2u) << host.errors();
  EXPECT_EQ(count(host.errors(), "is not loaded: "), 2u) << "a failed load has cost a line already: " << host.errors();
}

TEST_F(PluginHost, AMistypedNameIsReportedAtTheEndAndByTheDoctor) {
  service.state().setConfigurationValue("plan", "gold");
  const std::string bundle =
      bundleWithEcho("<key>InAppPlugin</key><true/><key>EchoPlugn</key><true/><key>Off</key><false/>");
  for (const char* plan : {"(null)", "gold"}) {
    auto host = runExample(bundle);
    ASSERT_TRUE(host.waitForError("initialized!"));
    host.closeInput();
    EXPECT_EQ(host.wait(), 0) << host.errors();
    EXPECT_EQ(count(host.errors(),
                    "<KLV ERROR> Plug-in EchoPlugn of the bundle is not loaded: no class of this name is registered "
                    "(registered: EchoPlugin, InAppPlugin), and there is no usable libkelvo-EchoPlugn.so in " +
                        bundle),
              1u)
        << host.errors();
    EXPECT_EQ(count(host.output(), std::string("Plan: ") + plan), 1u) << host.output();
  }
  auto doctor = run({KELVO_INSPECT_PROGRAM, "--doctor", "--program", KELVO_IN_APP}, {{"KELVO_BUNDLE", bundle}});
  doctor.wait();
  const std::string program = KELVO_IN_APP;
  for (const std::string& line :
       {"ok  plug-in     InAppPlugin is in " + program + "\n",
        "ok  plug-in     EchoPlugin is in " + bundle + "/libkelvo-EchoPlugin.so\n",
        "?   plug-in     EchoPlugn: " + program +
            " does not contain it, and there is no usable libkelvo-EchoPlugn.so in " + bundle + ". "}) {
    EXPECT_EQ(count(doctor.output(), line), 1u) << line << doctor.output();
  }
  EXPECT_EQ(count(doctor.output(), "plug-in "), 3u) << doctor.output();
}

TEST_F(PluginHost, TheGuidesPluginAsksForARatingAtTheThirdPurchase) {
  auto shop = run({KELVO_SHOP});
  ASSERT_TRUE(shop.waitForError("initialized!"));
  for (int purchase = 0; purchase < 3; ++purchase) {
    shop.writeLine("book");
    EXPECT_TRUE(eventually([&] {
      return stored("select count from lifetime_events where name = 'Purchase'") == Texts{std::to_string(purchase + 1)};
    }));
  }
  EXPECT_TRUE(shop.waitForOutput("Will you rate it?"));
  shop.closeInput();
  EXPECT_EQ(shop.wait(), 0) << shop.errors();
  EXPECT_EQ(stored("select count from lifetime_events where name = 'Asked for a rating'"), Texts{"1"});
}

TEST_F(PluginHost, NoEventIsLostIfAPluginEndsTheProcessOrBlocksTheStart) {
  const std::string bundle = bundleWithEcho();
  const auto names = [this] {
    return stored("select name from lifetime_events where name not like 'klv%' order by rowid");
  };

  auto ending = runExample(bundle);
  ASSERT_TRUE(ending.waitForError("initialized!"));
  ending.writeLine("First");
  ending.writeLine("Exit");
  EXPECT_EQ(ending.wait(), 7) << ending.errors();
  EXPECT_EQ(count(ending.output(), "KelvoiOSSDK finalizer"), 1u);
  EXPECT_EQ(names(), (Texts{"First", "Exit"}));

  auto blocked = runExample(bundle, {{"ECHO_BLOCKS_START", "1"}});
  EXPECT_TRUE(eventually([&] { return count(blocked.output(), "Blocks the start") == 1; })) << blocked.errors();
  blocked.writeLine("Second");
  EXPECT_TRUE(eventually([&] { return count(blocked.output(), "Echo: Second") > 0; })) << blocked.errors();
  blocked.closeInput();
  EXPECT_EQ(blocked.wait(), 0) << blocked.errors();
  EXPECT_EQ(count(blocked.errors(), "initialized!"), 0u);
  EXPECT_EQ(names(), (Texts{"First", "Exit", "Second"}));
}

TEST_F(PluginHost, AHostWithTheStaticLibraryLoadsNoSharedObjects) {
  auto host = launch({}, {{"KELVO_BUNDLE", bundleWithEcho()}});
  EXPECT_EQ(host.untilReady().log("Event").quit(), 0) << host.errors();
  EXPECT_EQ(count(host.errors(), "libkelvo-EchoPlugin.so is left alone"), 1u);
}

}  // namespace
}  // namespace kelvo::test
