#include <functional>

#include "core/CoreTest.h"
#include "kelvo-collector/service/Script.h"
#include "kelvo/Application.h"
#include "kelvo/KelvoSDK.h"
#include "platform/HostInterface.h"
#include "platform/MainQueue.h"
#include "platform/NotificationCenter.h"
#include "util/KLVDeliveryRules.h"

namespace kelvo::test {
namespace {

using collector::Script;
using Steady = std::chrono::steady_clock;

FlushResult flushed(std::chrono::milliseconds deadline = 20s) {
  return KelvoSDK::flushAndWait(deadline);
}

class Flush : public CoreTest {
 protected:
  ~Flush() override { KLVDeliveryRules::choose(KLVDeliveryRules::classic); }
};

struct Ending {
  const char* name;
  const KLVDeliveryRules* rules;
  Script script;  ///< the service's answer to every chunk
  std::chrono::milliseconds deadline;
  FlushOutcome outcome;
  int status;
  const char* reason;
  bool waitsForDeadline;
};

class FlushEnding : public Flush, public testing::WithParamInterface<Ending> {};

TEST_P(FlushEnding, ReportsTheCauseAndCountsWhatWaits) {
  const Ending& given = GetParam();
  KLVDeliveryRules::choose(*given.rules);
  service.answer("/chunks", given.script);
  start();
  KelvoSDK::logAppEventWithName("A");
  KelvoSDK::logClientEventWithName("Not stored");
  KelvoSDK::reportCustomError("B");
  const auto begin = Steady::now();
  const FlushResult result = flushed(given.deadline);
  const bool isDelivered = given.outcome == FlushOutcome::delivered;
  EXPECT_EQ(result.outcome, given.outcome) << result.reason;
  EXPECT_EQ(result.status, given.status);
  EXPECT_NE(result.reason.find(given.reason), std::string::npos) << result.reason;
  EXPECT_EQ(result.reason.empty(), isDelivered);
  EXPECT_EQ(Steady::now() - begin >= given.deadline, given.waitsForDeadline);
  // klv_app_opened, A and B.
  EXPECT_EQ(result.deliveredEvents, isDelivered ? 3u : 0u);
  EXPECT_EQ(result.deliveredChunks, isDelivered ? 1u : 0u);
  EXPECT_EQ(result.waitingEvents, isDelivered ? 0u : 3u);
  EXPECT_EQ(result.waitingChunks, isDelivered ? 0u : 1u);
}

const Ending kEndings[] = {
    {"delivered", &KLVDeliveryRules::classic, 200, 20s, FlushOutcome::delivered, 0, "", false},
    {"refusedUnderClassic", &KLVDeliveryRules::classic, 503, 20s, FlushOutcome::refused, 503, "answered 503", false},
    {"refusedUnderComplete", &KLVDeliveryRules::complete, 500, 1s, FlushOutcome::refused, 500, "answered 500", true},
    {"cutUnderClassic", &KLVDeliveryRules::classic, Script::cut(), 20s, FlushOutcome::noService, 0,
     "no service: ", false},
    {"cutUnderComplete", &KLVDeliveryRules::complete, Script::cut(), 1s, FlushOutcome::noService, 0,
     "no service: ", true},
    {"noAnswer", &KLVDeliveryRules::classic, Script::never(), 1s, FlushOutcome::deadline, 0, "before the service",
     true},
};
INSTANTIATE_TEST_SUITE_P(, FlushEnding, testing::ValuesIn(kEndings), [](const auto& test) { return test.param.name; });

TEST_F(Flush, SkipsTheDelayBetweenResends) {
  KLVDeliveryRules::choose(KLVDeliveryRules::complete);
  service.answer("/chunks", 500);
  start();
  EXPECT_EQ(flushed(500ms).outcome, FlushOutcome::refused);
  service.answerNormally("/chunks");
  EXPECT_EQ(flushed().outcome, FlushOutcome::delivered);
}

TEST_F(Flush, WithoutADeadlineReportsTheStateAfterTheCut) {
  EXPECT_EQ(flushed(0ms).outcome, FlushOutcome::notCollecting);
  service.answer("/chunks", Script::never());
  start();
  KelvoSDK::logAppEventWithName("A");
  const FlushResult result = flushed(-1ms);
  EXPECT_EQ(result.outcome, FlushOutcome::deadline);
  EXPECT_EQ(result.waitingChunks, 1u);
  EXPECT_EQ(result.waitingEvents, 2u);
}

TEST_F(Flush, WaitsForTheStart) {
  KelvoSDK::logAppEventWithName("A");
  std::promise<FlushResult> result;
  KelvoSDK::flush(20s, [&](const FlushResult& now) { result.set_value(now); });
  KelvoSDK::flush(20s, {});
  EXPECT_EQ(flushed(50ms).reason, "the library has not been started");
  controller().initializeWithKelvoID("shop");
  const FlushResult now = result.get_future().get();
  EXPECT_EQ(now.outcome, FlushOutcome::delivered) << now.reason;
  EXPECT_EQ(now.deliveredEvents, 2u);
}

TEST_F(Flush, OfADisabledLibraryEndsAtOnce) {
  service.answer("/enabled-status", Script(200, R"({"enabled": 0})"));
  controller().initializeWithKelvoID("shop");
  const FlushResult result = flushed(1h);
  EXPECT_EQ(result.outcome, FlushOutcome::notCollecting);
  EXPECT_EQ(result.reason, "collection is disabled");
}

class Caller final : public KLVEventListener {
 public:
  explicit Caller(std::function<void()> call) : call_(std::move(call)) {}
  void onEvent(const std::shared_ptr<KLVEvent>&) override { call_(); }

 private:
  std::function<void()> call_;
};

TEST_F(Flush, FromACallbackOfTheLibraryNeverBlocks) {
  start();
  const std::pair<const char*, std::function<void(std::function<void()>)>> places[] = {
      {"the callback of a flush", [](auto call) { KelvoSDK::flush(0ms, [call](const FlushResult&) { call(); }); }},
      {"the main queue", [](auto call) { MainQueue::async(call); }},
      {"a task on the thread of the host", [](auto call) { DispatchQueue("own").sync(call); }},
      {"a listener",
       [](auto call) {
         controller().registerForEventWithType(KLVEventType::app, std::make_shared<Caller>(call));
         KelvoSDK::logAppEventWithName("A");
       }},
  };
  for (const auto& [name, callFrom] : places) {
    std::promise<FlushResult> result;
    callFrom([&] { result.set_value(flushed(1h)); });
    EXPECT_EQ(result.get_future().get().outcome, FlushOutcome::insideCallback) << name;
  }
}

class Titled final : public ViewController {
 public:
  std::string className() const override { return "Titled"; }
  std::optional<std::string> title() const override { return "Title"; }
};

TEST_F(Flush, OnTheMainLoopDoesNotWaitForTitles) {
  start();
  settle();
  static std::vector<MainQueue::Task> waiting;  // the loop does not turn
  MainQueue::handOver([](MainQueue::Task task) { waiting.push_back(std::move(task)); }, [] { return true; });
  NotificationCenter::defaultCenter().post(kDidShowViewController, Screen(std::make_shared<Titled>()));
  KelvoSDK::logAppEventWithName("A");
  const FlushResult result = flushed(900ms);
  EXPECT_EQ(result.outcome, FlushOutcome::delivered) << "a title would take a second: " << result.reason;
  EXPECT_EQ(result.deliveredEvents, 2u);
}

}  // namespace
}  // namespace kelvo::test
