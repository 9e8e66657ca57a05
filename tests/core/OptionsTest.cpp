#include <filesystem>

#include "core/CoreTest.h"
#include "core/HostSettings.h"
#include "core/Readiness.h"
#include "platform/SwitchedOff.h"
#include "support/FaultVFS.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVHostLimits.h"

namespace kelvo::test {
namespace {

TEST(HostSettings, OptionsChooseTheDeliveryThenTheBundleThenComplete) {
  const auto chosen = [](const Value& inBundle, std::optional<Delivery> option) {
    HostSettings settings;
    Options options("shop");
    options.delivery = option;
    settings.applyBundle(inBundle.isNull() ? Dictionary() : Dictionary{{"KelvoDelivery", inBundle}});
    settings.apply(options);
    return &KLVDeliveryRules::current();
  };
  EXPECT_EQ(chosen({}, {}), &KLVDeliveryRules::complete);
  EXPECT_EQ(chosen("classic", {}), &KLVDeliveryRules::classic);
  EXPECT_EQ(chosen("classic", Delivery::complete), &KLVDeliveryRules::complete);
  EXPECT_EQ(chosen("complete", Delivery::classic), &KLVDeliveryRules::classic);
  EXPECT_EQ(chosen("every", {}), &KLVDeliveryRules::complete) << "an unknown name is no choice";
}

TEST(HostSettings, TheLimitOfStoredDataFollowsTheDeliveryUnlessTheHostChooses) {
  const auto limit = [] { return KLVHostLimits::current().mostStoredBytes; };
  constexpr std::uint64_t kDefault = 100 * 1024 * 1024;
  HostSettings settings;
  settings.applyBundle({{"KelvoDelivery", "complete"}});  // and no options: `initializeKelvoWithID`
  EXPECT_EQ(limit(), kDefault);
  settings.applyBundle({{"KelvoDelivery", "classic"}});
  EXPECT_EQ(limit(), 0U);
  Options options("shop");
  options.delivery = Delivery::complete;
  settings.apply(options);
  EXPECT_EQ(limit(), kDefault);
  options.maxStoredBytes = 0;
  settings.apply(options);
  EXPECT_EQ(limit(), 0U) << "no limit";
}

TEST(HostSettings, TheSizeOfTheJournalIsTheHostsThenTheBundlesThenTheDefault) {
  const LogCapture log;
  const auto chosen = [](const Value& inBundle, std::optional<std::uint64_t> option) {
    KLVHostLimits::choose({});
    HostSettings settings;
    Options options("shop");
    options.logLevel = LogLevel::info;
    options.journalBytes = option;
    settings.applyBundle(inBundle.isNull() ? Dictionary() : Dictionary{{"KelvoJournalBytes", inBundle}});
    settings.apply(options);
    return KLVHostLimits::current().journalBytes;
  };
  EXPECT_EQ(chosen({}, {}), 4U << 20);
  EXPECT_EQ(chosen(1 << 20, {}), 1U << 20);
  EXPECT_EQ(chosen(1 << 20, 0), 0U);
  EXPECT_EQ(chosen(0, 65536), 65536U);
  for (const Value& bad : {Value(-5), Value(65535), Value("1 MB"), Value((64 << 20) + 1)}) {
    EXPECT_EQ(chosen(bad, {}), 4U << 20) << description(bad);
    EXPECT_TRUE(log.waitFor("<KLV ERROR> The size of the journal is neither 0 nor from 65536 to 67108864 bytes: " +
                            description(bad)));
  }
}

TEST_F(CoreTest, ADatabaseThatCannotBeOpenedIsAFailureUntilItCan) {
  FaultVFS disk;
  disk.fail(FaultVFS::Operation::open, FaultVFS::Persistence::forEver, 1);
  std::promise<KelvoSDK::Status> changes[2];
  KelvoSDK::onReady([&, next = 0](const KelvoSDK::Status& status) mutable { changes[next++].set_value(status); });
  start();
  EXPECT_EQ(changes[0].get_future().get().reason, "The database cannot be opened; the next event tries again");
  disk.heal();
  KelvoSDK::logAppEventWithName("Event");
  EXPECT_EQ(changes[1].get_future().get().state, KelvoSDK::State::running);
}

TEST(SwitchedOffTest, TheAdministratorsFileSwitchesEveryProgramOff) {
  const LogCapture log;
  const std::string file = home() + "/disabled";
  writeFileForTest(file, "");
  SwitchedOff::setFile(file);
  Options options("shop");
  options.logLevel = LogLevel::info;
  KelvoSDK::start(options);
  std::filesystem::remove(file);  // decided once for the process
  KelvoSDK::logAppEventWithName("Event");
  std::promise<KelvoSDK::Status> status;
  KelvoSDK::onReady([&](const auto& present) { status.set_value(present); });
  EXPECT_EQ(status.get_future().get().state, KelvoSDK::State::switchedOffHere);
  EXPECT_EQ(log.count("<KLV INFO> Kelvo is switched off on this machine: The file " + file), 1U);
  EXPECT_EQ(log.lines().size(), 1U);
  EXPECT_FALSE(std::filesystem::exists(home() + "/Library"));
}

}  // namespace
}  // namespace kelvo::test
