#include <filesystem>

#include "core/CoreTest.h"
#include "core/RescueFiles.h"
#include "platform/HostInterface.h"
#include "platform/JSON.h"
#include "platform/NotificationCenter.h"

namespace kelvo::test {
namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

constexpr const char* kFile = "com.kelvo.db.eventsbuffer";
constexpr const char* kUser = "com.kelvo.db.user";
constexpr const char* kStoredUser =
    R"({"id": "u", "__additional_info__": "{\"__custom_info__\": {\"plan\": \"old\", \"since\": 1}}"})";

/// Returns the names of the application events in the rescue file.
Texts rescued() {
  Texts names;
  const auto forms = parseJSON(contentOf(library(kFile)));
  for (const Value& form : forms ? forms->asArray().value_or(Array()) : Array()) {
    const Dictionary event = form.asDictionary().value();
    if (event["type"] == Value("App")) names.push_back(description(event["id"]));
  }
  return names;
}

Dictionary objectIn(const std::string& path) {
  return parseJSON(contentOf(path)).value_or(Value()).asDictionary().value_or(Dictionary());
}

/// Returns the custom attributes in the file of a record.
Dictionary customAttributesIn(const std::string& path) {
  const auto info = parseJSON(objectIn(path)["__additional_info__"].asText().value_or("null"));
  return info->asDictionary().value_or(Dictionary())["__custom_info__"].asDictionary().value_or(Dictionary());
}

/// Returns the text of a rescue file with application events of these names.
std::string fileOf(const Texts& names) {
  Array forms;
  for (const auto& name : names) {
    const auto event = std::make_shared<KLVEvent>(KLVEventType::app);
    event->setIdentifier(name);
    forms.append(event->jsonDict());
  }
  return *jsonText(forms);
}

class Rescue : public CoreTest {
 protected:
  static void log(const std::string& name) { controller().logAppEventWithName(name, {}, false, false); }
  static void background() {
    controller().performInOrder([] { NotificationCenter::defaultCenter().post(kApplicationWillResignActive); });
    settle();
  }
  /// Returns the rows of the application events of the current session.
  static std::vector<Dictionary> stored() {
    return controller().getEventsBetween(1, 99, controller().getSessionId(), KLVEventType::app).value();
  }
};

TEST_F(Rescue, EachBackgroundBeforeReadinessAddsToTheFilesAndLosesNothing) {
  service.answer("/enabled-status", collector::Script::never());
  writeFileForTest(library(kUser), kStoredUser);
  controller().initializeWithKelvoID("shop");
  ASSERT_TRUE(service.waitFor(1, "/enabled-status"));
  log("First");
  controller().setUserCustomInfo(Dictionary{{"plan", "gold"}, {"level", 1}});
  controller().setSessionCustomInfo(Dictionary{{"tab", 1}});
  background();
  EXPECT_EQ(rescued(), Texts{"First"});
  EXPECT_EQ(objectIn(library(kUser)), (Dictionary{{"plan", "gold"}, {"since", 1}, {"level", 1}}));

  log("Second");
  controller().setUserCustomInfo(Dictionary{{"level", 2}});
  fs::rename(library(""), home() + "/Elsewhere");
  background();
  fs::rename(home() + "/Elsewhere", library(""));
  EXPECT_EQ(rescued(), Texts{"First"}) << "nothing can be written";
  log("Third");
  background();
  EXPECT_EQ(rescued(), (Texts{"First", "Second", "Third"}));
  EXPECT_EQ(objectIn(library(kUser)), (Dictionary{{"plan", "gold"}, {"since", 1}, {"level", 2}}));
  EXPECT_EQ(controller().getSessionId(), std::nullopt);
}

TEST_F(Rescue, CallsDuringTheStartKeepTheirOrderAndTheStoredUser) {
  writeFileForTest(library(kUser), kStoredUser);
  log("Early");
  controller().logAppEventWithName("Rate", Dictionary{{"stars", 5}}, false, true);
  controller().setUserCustomInfo(Dictionary{{"plan", "first"}});
  controller().setSessionCustomInfo(Dictionary{{"tab", "first"}, {"page", 1}});
  controller().initializeWithKelvoID("shop");
  // The next calls run when the session has started, but the stored user is not merged.
  controller().performInOrder([] {
    while (controller().session() == nullptr) std::this_thread::sleep_for(1ms);
  });
  controller().setUserIdentifier("ann");
  controller().setUserCustomInfo(Dictionary{{"plan", "second"}});
  controller().setSessionCustomInfo(Dictionary{{"tab", "second"}});
  while (!controller().hasStarted()) std::this_thread::sleep_for(1ms);
  settle();

  EXPECT_EQ(customAttributesIn(library(kUser)),
            (Dictionary{{"plan", "second"}, {"since", 1}, {"custom_user_id", "ann"}}));
  EXPECT_EQ(objectIn(library(kUser))["id"], Value("u"));
  EXPECT_EQ(customAttributesIn(library(*controller().getSessionId() + "/session_info")),
            (Dictionary{{"tab", "second"}, {"page", 1}}));
  const auto rows = stored();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0]["id"], Value("Early"));
  EXPECT_EQ(rows[1]["id"], Value("klv_app_opened"));
  const auto opened = parseJSON(rows[1]["__additional_info__"].asText().value())->asDictionary().value();
  EXPECT_EQ(opened["type"], Value("normal"));
  EXPECT_EQ(controller().getLifetimeCountForEventWithName("Early"), 1);
  EXPECT_EQ(description(chunkDelegate().retrieveAggregateEventsWithSessionIdentifier(*controller().getSessionId())),
            R"([{"name":"Rate","count":1,"attributes":{"stars":[["5",1]]}}])");
}

TEST_F(Rescue, ALaunchStoresEveryFileOnceAndSetsACorruptOneAside) {
  const std::string file = library(kFile);
  {
    KLVDataHandler killed("1-device");
    killed.startWithCompletionHandler({});
    const auto event = std::make_shared<KLVEvent>(KLVEventType::app);
    event->setIdentifier("Of a killed launch");
    EXPECT_EQ(killed.storeRescuedEvents(std::string(kFile) + ".0001-stored", {event}, "1-device"),
              KLVDataHandler::Rescue::stored);
  }
  writeFileForTest(file + ".0001-stored", fileOf({"Of a killed launch"}));
  writeFileForTest(file + ".0002-renamed", fileOf({"A", "B"}));
  writeFileForTest(file + ".0003-cut", fileOf({"Lost"}).substr(0, 20));
  writeFileForTest(file, fileOf({"C"}));
  start();
  settle();

  Texts names;
  for (const auto& row : stored()) names.push_back(description(row["id"]));
  EXPECT_EQ(names, (Texts{"A", "B", "C", "klv_app_opened"}));
  EXPECT_EQ(controller().getLifetimeCountForEvents({"Of a killed launch", "A", "C"}),
            (Dictionary{{"Of a killed launch", 1}, {"A", 1}, {"C", 1}}));
  EXPECT_EQ(CoreTest::log.count("<KLV ERROR> The rescued events in "), 1u);
  EXPECT_EQ(contentOf(file + ".corrupt"), fileOf({"Lost"}).substr(0, 20));
  EXPECT_TRUE(RescueFiles::names().empty());
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(Rescue, AFileThatTakesNoMoreEventsIsRenamedAndAProcessWithoutTheHomeAlwaysWritesNewOnes) {
  const auto event = std::make_shared<KLVEvent>(KLVEventType::app);
  event->setIdentifier("New");
  writeFileForTest(library(kFile), "[{");
  EXPECT_EQ(RescueFiles::writeEvents({event}, true), 1u);
  EXPECT_EQ(rescued(), Texts{"New"});
  ASSERT_EQ(RescueFiles::names().size(), 1u);
  EXPECT_EQ(contentOf(library(RescueFiles::names()[0])), "[{");

  event->setIdentifier(std::string(std::size_t{9} << 20, 'x'));
  EXPECT_EQ(RescueFiles::writeEvents({event, event, event}, true), 3u);
  EXPECT_EQ(rescued().size(), 1u);
  EXPECT_EQ(RescueFiles::writeEvents({event}, false), 1u);
  EXPECT_EQ(rescued().size(), 1u);
  const auto names = RescueFiles::names();
  ASSERT_EQ(names.size(), 4u) << "of 9 MiB each, but the first: corrupt, New and one, one, one without the home";
  std::vector<std::size_t> events;
  for (const auto& name : names) {
    if (const auto read = RescueFiles::read(name)) events.push_back(read->size());
  }
  EXPECT_EQ(events, (std::vector<std::size_t>{2, 1, 1}));
}

}  // namespace
}  // namespace kelvo::test
