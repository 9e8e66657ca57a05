// What the user decides, what is kept until then, and what the home remembers.

#include <sys/stat.h>

#include <filesystem>
#include <map>

#include "core/ConsentFile.h"
#include "core/CoreTest.h"
#include "core/HeldCalls.h"
#include "kelvo/Application.h"
#include "kelvo/KelvoSDK.h"
#include "platform/Clock.h"
#include "platform/JSON.h"
#include "util/KLVLedger.h"

namespace kelvo::test {
namespace {

using Kind = HeldCalls::Kind;
using Texts = std::vector<std::string>;

constexpr const char* kFile = "com.kelvo.consent.json";

/// Calls that note their numbers.
struct Noted {
  std::function<void()> call(int number) {
    return [this, number] { played.push_back(number); };
  }
  void play(HeldCalls& calls) {
    calls.open([](HeldCalls::Calls& all) {
      for (auto& held : all) held.call();
    });
  }
  std::vector<int> played;
};

TEST(HeldCalls, BeforeTheStartKeepsEveryCallButOldReports) {
  const LogCapture log;
  HeldCalls calls;
  Noted noted;
  const auto keep = [&](Kind kind, int number) {
    auto call = noted.call(number);
    return calls.keep(kind, call);
  };
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(keep(i == 0 ? Kind::event : Kind::namedScreen, -i));
  for (int i = 1; i <= 1500; ++i) EXPECT_TRUE(keep(Kind::report, i));
  EXPECT_EQ(calls.events(), 1U);
  noted.play(calls);
  ASSERT_EQ(noted.played.size(), 1003U);
  EXPECT_EQ(noted.played[2], -2);
  EXPECT_EQ(noted.played[3], 501);
  EXPECT_EQ(noted.played.back(), 1500);
  EXPECT_EQ(log.count("<KLV WARN> Keeping only the last 1000 reports until the start"), 1U);
  EXPECT_FALSE(keep(Kind::event, 7));
  EXPECT_EQ(calls.events(), 0U);
}

TEST(HeldCalls, WhileConsentIsAwaitedDropsTheOldestCallsAndCountsTheirEvents) {
  const LogCapture log;
  const auto dropped = [] { return KLVLedger::shared().count(KLVLedgerEntry::droppedBeforeConsent); };
  HeldCalls calls;
  Noted noted;
  for (int i = 1; i <= 8; ++i) {
    auto call = noted.call(i);
    EXPECT_TRUE(calls.keep(i % 2 == 0 ? Kind::event : Kind::other, call));
    if (i == 6) calls.limit(5);
  }
  EXPECT_EQ(calls.events(), 3U);
  EXPECT_EQ(dropped(), 1U) << "the second call; the first and the third were no events";
  noted.play(calls);
  EXPECT_EQ(noted.played, (std::vector<int>{4, 5, 6, 7, 8}));
  EXPECT_EQ(log.count("<KLV WARN> More than 5 calls wait for the user's consent: the oldest are dropped"), 1U);

  HeldCalls denied;
  for (int i = 1; i <= 2; ++i) {
    auto call = noted.call(i);
    EXPECT_TRUE(denied.keep(Kind::event, call));
  }
  denied.drop();
  EXPECT_EQ(dropped(), 3U);
}

TEST(ConsentFile, AFileThatCannotBeUnderstoodCountsAsADenial) {
  const LogCapture log;
  const struct {
    const char* text;
    std::optional<Consent> decision;
    bool isErasing;
    bool isReported;
  } cases[] = {
      {R"({"consent":"granted"})", Consent::granted, false, false},
      {R"({"consent":"denied","erasing":true})", Consent::denied, true, false},
      {R"({"deletions":[]})", std::nullopt, false, false},
      {"", Consent::denied, true, true},
      {R"({"consent":"gran)", Consent::denied, true, true},
      {R"(["granted"])", Consent::denied, true, true},
      {R"({"consent":"maybe"})", Consent::denied, true, true},
      {R"({"consent":"granted","erasing":"no"})", Consent::denied, true, true},
      {R"({"consent":"granted","deletions":[{"appId":"shop"}]})", Consent::denied, true, true},
  };
  for (const auto& given : cases) {
    writeFileForTest(library(kFile), given.text);
    const auto lines = log.count("counts as a denial of consent");
    const auto file = KLVConsentFile::read(library(""));
    EXPECT_EQ(file.decision, given.decision) << given.text;
    EXPECT_EQ(file.isErasing, given.isErasing) << given.text;
    EXPECT_EQ(log.count("counts as a denial of consent") - lines, given.isReported ? 1U : 0U) << given.text;
  }
  std::filesystem::remove(library(kFile));
  std::filesystem::create_directory(library(kFile));
  const auto unreadable = KLVConsentFile::read(library(""));
  EXPECT_EQ(unreadable.decision, Consent::denied);
  EXPECT_FALSE(unreadable.isErasing) << "nothing is deleted for a fault that may pass";
}

TEST(ConsentFile, AGrantThatAnotherUserCouldHaveWrittenDoesNotCount) {
  const LogCapture log;
  for (const auto& [text, mode, decision] :
       {std::tuple{R"({"consent":"granted"})", 0600, std::optional(Consent::granted)},
        {R"({"consent":"granted"})", 0666, std::nullopt},
        {R"({"consent":"denied"})", 0666, std::optional(Consent::denied)}}) {
    writeFileForTest(library(kFile), text);
    std::filesystem::permissions(library(kFile), static_cast<std::filesystem::perms>(mode));
    EXPECT_EQ(KLVConsentFile::read().decision, decision) << text << mode;
  }
  EXPECT_EQ(log.count("<KLV ERROR> The user's consent does not count: other users may write to "), 1U);
}

TEST(ConsentFile, KeepsEverythingAndVanishesWithItsContent) {
  EXPECT_EQ(KLVConsentFile::read().decision, std::nullopt);
  EXPECT_FALSE(std::filesystem::exists(library(""))) << "reading creates nothing";
  KLVConsentFile file;
  file.decision = Consent::denied;
  file.deletions = {{"shop", "device \"1\"", "secret"}};
  EXPECT_TRUE(file.write());
  struct stat facts {};
  ASSERT_EQ(::stat(library(kFile).c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 0777U, 0600U);
  EXPECT_TRUE(KLVConsentFile::change([](KLVConsentFile& stored) {
    ASSERT_EQ(stored.deletions.size(), 1U);
    EXPECT_EQ(stored.deletions[0].userId, "device \"1\"");
    stored = {};
  }));
  EXPECT_FALSE(std::filesystem::exists(library(kFile)));
}

class ConsentTest : public CoreTest {
 protected:
  static void startRequired() {
    Options options("shop");
    options.consentRequired = true;
    options.logLevel = LogLevel::debug;
    options.logSink = {};
    KelvoSDK::start(options);
  }
  static void waitForStart() {
    while (!controller().hasStarted()) std::this_thread::sleep_for(1ms);
    settle();
  }
  /// Returns name and seconds of all stored events, in the order of their rows.
  static Texts storedEvents() {
    std::map<std::int64_t, std::string> rows;
    for (const auto type :
         {KLVEventType::app, KLVEventType::navigation, KLVEventType::system, KLVEventType::customError}) {
      const auto ofType = controller().getEventsBetween(1, 99, controller().getSessionId(), type).value();
      for (const auto& row : ofType) {
        const bool isError = type == KLVEventType::customError;
        rows[row["identifier"].asInt64()] =
            (isError ? "error" : description(row["id"])) + " " + description(row["time"]);
      }
    }
    Texts events;
    for (const auto& [index, event] : rows) events.push_back(event);
    return events;
  }
};

TEST_F(ConsentTest, AGrantPlaysTheHeldCallsInTheirOrderWithTheirTimes) {
  service.answer("/chunks", 503);   // what is accepted leaves the database
  static_cast<void>(controller());  // as at load: its clock runs from now on
  Clock::advance(1s);
  KelvoSDK::logAppEventWithName("Before the start");
  Clock::advance(1s);
  startRequired();
  EXPECT_EQ(KelvoSDK::consent(), Consent::undecided);
  Application::didShow("Home");
  Clock::advance(10s);
  KelvoSDK::logAppEventWithName("First");
  KelvoSDK::setUserCustomInfo(Dictionary{{"plan", "gold"}});
  Clock::advance(10s);
  Application::willResignActive();
  KelvoSDK::reportCustomError("Fault");
  Clock::advance(1000s);
  EXPECT_EQ(controller().heldEvents(), 3U);
  EXPECT_FALSE(std::filesystem::exists(library("")));
  KelvoSDK::setConsent(Consent::granted);
  EXPECT_EQ(KelvoSDK::consent(), Consent::granted);
  waitForStart();
  KelvoSDK::logAppEventWithName("After");
  settle();
  auto events = storedEvents();
  EXPECT_EQ(std::erase(events, "Home 2"), 1U) << "the screen is left by BACKGROUND, so its place may differ";
  EXPECT_EQ(events, (Texts{"Before the start 1", "First 12", "BACKGROUND 22", "error 22", "klv_app_opened 1022",
                           "After 1022"}));
  EXPECT_EQ(contentOf(library(kFile)), R"({"consent":"granted"})");
  EXPECT_EQ(chunkDelegate().user()->customInfo()["plan"], Value("gold"));
}

TEST_F(ConsentTest, ADecisionBeforeTheStartIsAppliedByIt) {
  KelvoSDK::setConsent(Consent::undecided);
  EXPECT_EQ(log.count("<KLV WARN> Ignoring a consent that is neither granted nor denied"), 1U);
  KelvoSDK::setConsent(Consent::granted);
  EXPECT_FALSE(std::filesystem::exists(library("")));
  KelvoSDK::logAppEventWithName("Early");
  startRequired();
  waitForStart();
  EXPECT_EQ(storedEvents().size(), 2U);
  EXPECT_EQ(contentOf(library(kFile)), R"({"consent":"granted"})");
}

/// Returns whether `path` is described itself, or as a part of a described member.
bool isDescribed(const Dictionary& described, const std::string& path) {
  for (const auto& [name, kind] : described) {
    if (path == name || path.rfind(std::string(name) + ".", 0) == 0) return true;
  }
  return false;
}

/// Adds the paths of the innermost members of `value` that are not described.
void findUndescribed(const Dictionary& described, const Value& value, const std::string& path, Texts& found) {
  if (!path.empty() && isDescribed(described, path)) return;
  const auto* dictionary = value.get<Dictionary>();
  if (dictionary == nullptr) return found.push_back(path);
  for (const auto& [key, member] : *dictionary) {
    findUndescribed(described, member, path.empty() ? key : path + "." + key, found);
  }
}

TEST_F(ConsentTest, TheDescriptionCoversEveryMemberThatIsSent) {
  const Dictionary described = KelvoSDK::describeData();
  for (const auto& [name, kind] : described) {
    for (const char* key : {"what", "purpose", "stored", "kept"}) {
      EXPECT_FALSE((*kind.get<Dictionary>())[key].asText().value_or("").empty()) << name;
    }
  }
  start();
  Application::logDeviceToken("token");
  Application::setScreenSize(800, 600);
  KelvoSDK::logAppEventWithName("Event", {{"a", 1}});
  KelvoSDK::logAggregateEvent("Counted", {{"a", 1}});
  KelvoSDK::reportCustomError("Fault");
  KelvoSDK::setUserCustomInfo({{"plan", "gold"}});
  KelvoSDK::setSessionCustomInfo({{"tab", 1}});
  KelvoSDK::logScreenWithName("Home");
  Application::willResignActive();
  settle();
  ASSERT_TRUE(service.waitForChunks(1));
  ASSERT_TRUE(service.waitFor(1, "/v2/api/user"));
  Texts found;
  for (const Value& chunk : service.chunks()) findUndescribed(described, chunk, "", found);
  for (const auto& request : service.requests("/v2/api/user")) {
    findUndescribed(described, parseJSON(request.body).value(), "", found);
  }
  EXPECT_EQ(found, Texts());
}

}  // namespace
}  // namespace kelvo::test
