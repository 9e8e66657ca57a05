// Delivery over long times, outages and launches, which the kit's clock makes short.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>

#include "kelvo/KelvoSDK.h"
#include "kelvo/Plugin.h"
#include "kelvo/PluginServices.h"
#include "kelvo/Testing.h"

using namespace std::chrono_literals;

namespace {

namespace fs = std::filesystem;

using kelvo::Application;
using kelvo::Array;
using kelvo::Dictionary;
using kelvo::KelvoSDK;
using kelvo::PluginServices;
using kelvo::Value;
using kelvo::testing::Fault;
using kelvo::testing::Recorder;
using Texts = std::vector<std::string>;

constexpr auto kLongAbsence = 2000s;  // ends a session

/// Returns the member at the end of a path of keys, null if there is none.
Value at(Value value, std::initializer_list<const char*> path) {
  for (const char* key : path) value = value.asDictionary().value_or(Dictionary())[key];
  return value;
}

/// Returns the members `name` of the list in a chunk.
Texts namesIn(const Dictionary& chunk, const char* list) {
  Texts names;
  for (const Value& event : at(chunk, {"chunk_details", list}).asArray().value_or(Array())) {
    names.push_back(description(at(event, {"name"})));
  }
  return names;
}

/// Returns the host's application events that arrived, sorted.
Texts arrived(Recorder& recorder) {
  std::multiset<std::string> names;
  for (const Dictionary& chunk : recorder.service().chunks()) {
    for (const auto& name : namesIn(chunk, "app_events")) names.insert(name);
  }
  names.erase("klv_app_opened");
  return {names.begin(), names.end()};
}

/// Returns the number of sessions of which the home has data.
std::ptrdiff_t storedSessions(const Recorder& recorder) {
  const fs::directory_iterator entries(recorder.home() + "/Library");
  return std::count_if(begin(entries), end(entries),
                       [](auto& entry) { return fs::exists(entry.path() / "session_info"); });
}

kelvo::Options optionsWith(kelvo::Delivery delivery) {
  kelvo::Options options("shop");
  options.delivery = delivery;
  return options;
}

TEST(DeliveryTest, AnOutageEndsAndTheRunningProcessDelivers) {
  for (const std::string end : {"another chunk", "foreground", "time only"}) {
    SCOPED_TRACE(end);
    Recorder recorder;
    recorder.service().fail("", Fault::cut());
    Application::didBecomeActive();
    KelvoSDK::logAppEventWithName("Early");
    Application::willResignActive();
    EXPECT_EQ(arrived(recorder), Texts());
    recorder.service().recover();
    Texts expected{"Early"};
    if (end == "foreground") Application::didBecomeActive();
    if (end == "another chunk") {
      KelvoSDK::logAppEventWithName(expected.emplace_back("Later"));
      Application::willResignActive();
    }
    if (end == "time only") recorder.advance(30s);
    EXPECT_EQ(arrived(recorder), expected);
  }
}

TEST(DeliveryTest, AKioskDeliversTheSessionsBetweenThreeLongAbsencesWithoutARelaunch) {
  Recorder recorder;
  Application::didBecomeActive();
  Texts names;
  for (std::size_t visit = 1; visit <= 4; ++visit) {
    if (visit > 1) {
      recorder.advance(kLongAbsence);
      Application::didBecomeActive();
    }
    KelvoSDK::logAppEventWithName(names.emplace_back("Visit" + std::to_string(visit)));
    recorder.advance(4s);  // no timer cuts meanwhile
    Application::willResignActive();
    ASSERT_EQ(arrived(recorder), names) << visit;
  }
  EXPECT_EQ(storedSessions(recorder), 1) << "ended sessions are purged once they are delivered";

  std::set<std::string> sessions;
  for (const Dictionary& chunk : recorder.service().chunks()) {
    ASSERT_LE(sessions.size(), names.size());
    const bool isNew = sessions.insert(description(at(chunk, {"session_info", "id"}))).second;
    EXPECT_EQ(at(chunk, {"chunk_meta", "number"}) == Value(1), isNew) << description(chunk);
    EXPECT_EQ(description(at(chunk, {"session_info", "launch_type"})), sessions.size() == 1 ? "normal" : "restart");
    EXPECT_EQ(at(chunk, {"session_info", "duration"}), Value(4)) << "no absence, and no stretch of another session";
    if (!isNew) continue;
    EXPECT_EQ(namesIn(chunk, "system_events"), (Texts{"FOREGROUND", "BACKGROUND"}));
    EXPECT_EQ(namesIn(chunk, "app_events").back(), names[sessions.size() - 1]) << "a call after FOREGROUND";
  }
  EXPECT_EQ(sessions.size(), 4U);
  EXPECT_EQ(PluginServices::getLifetimeSessionCount(), 4);
}

TEST(DeliveryTest, UnderClassicRulesASessionAfterALongAbsenceIsNotStored) {
  Recorder recorder(optionsWith(kelvo::Delivery::classic));
  Application::didBecomeActive();
  KelvoSDK::logAppEventWithName("Before");
  Application::willResignActive();
  recorder.advance(kLongAbsence);
  Application::didBecomeActive();
  recorder.settle();
  EXPECT_EQ(storedSessions(recorder), 2) << "the session was restarted";
  KelvoSDK::logAppEventWithName("After");
  recorder.relaunch();
  recorder.relaunch();
  EXPECT_EQ(arrived(recorder), Texts{"Before"});
}

TEST(DeliveryTest, TheServicesListsDecideIfAnEventIsStoredCountedOrIgnored) {
  struct Listener : kelvo::EventListener {
    void onEvent(const kelvo::Event& event) override {
      seen.push_back(std::string(stringFromType(event.type)) + " " + event.name);
    }
    Texts seen;
  };
  Recorder recorder;
  recorder.service().setLists({"Client", "ClientAndAll"}, {"Agg", "ClientAndAll", "AggAndStop"},
                              {"Stop", "ClientAndAll", "AggAndStop"});
  recorder.relaunch();
  const auto listener = std::make_shared<Listener>();
  for (const auto type : {kelvo::KLVEventType::app, kelvo::KLVEventType::client, kelvo::KLVEventType::aggregate}) {
    PluginServices::registerForEventWithType(type, listener);
  }
  PluginServices::registerIdentifer("5___Client", listener);
  for (const char* name : {"Plain", "Client", "ClientAndAll", "Agg", "AggAndStop", "Stop"}) {
    KelvoSDK::logAppEventWithName(name);
  }
  KelvoSDK::logClientEventWithName("Stop", {});
  recorder.advance(30s);
  EXPECT_EQ(listener->seen, (Texts{"App Plain", "Client Client", "Client Client", "Client ClientAndAll", "Agg Agg",
                                   "Agg AggAndStop", "Client Stop"}));
  EXPECT_EQ(arrived(recorder), Texts{"Plain"});
  EXPECT_EQ(recorder.delivered("Agg") + recorder.delivered("AggAndStop"), 2);
  for (const char* name : {"Plain", "Client", "ClientAndAll", "Stop"}) {
    EXPECT_EQ(PluginServices::getLifetimeCountForEventWithName(name), 1) << name;
  }
  recorder.relaunch();
  const auto requests = recorder.service().requests();
  EXPECT_EQ(std::count_if(requests.begin(), requests.end(),
                          [](const auto& line) { return line.find("/client-events?") != line.npos; }),
            2)
      << "unchanged lists are not downloaded again";
}

TEST(DeliveryTest, ADownloadedConfigurationAppliesFromTheNextLaunch) {
  Recorder recorder;
  recorder.service().configure("enable", false);
  const auto collects = [&] {
    recorder.relaunch();
    return KelvoSDK::flushAndWait(1s).outcome != kelvo::FlushOutcome::notCollecting;
  };
  const auto downloads = [&] {
    const auto requests = recorder.service().requests();
    return std::count_if(requests.begin(), requests.end(),
                         [](const auto& line) { return line.find("/v2/api/config/") != line.npos; });
  };
  EXPECT_TRUE(collects());
  EXPECT_EQ(downloads(), 2);
  EXPECT_FALSE(collects());
  EXPECT_EQ(downloads(), 2) << "the saved hash is still valid";
  fs::remove(recorder.home() + "/Library/com.kelvo.SDK.config.json");
  EXPECT_TRUE(collects());
  EXPECT_EQ(downloads(), 3) << "a hash does not count without its file";
  EXPECT_FALSE(collects());
}

TEST(DeliveryTest, UnderCompleteTheUsersIdentifierIsKeptDuringTheStart) {
  Recorder recorder{Recorder::NotStarted()};
  recorder.service().fail("/enabled-status", Fault::late(300ms));
  KelvoSDK::start(optionsWith(kelvo::Delivery::complete));
  KelvoSDK::setUserIdentifier("ann");
  KelvoSDK::setUserCustomInfo({{"custom_user_id", "bob"}});
  KelvoSDK::setUserIdentifier("cem");
  recorder.advance(31s);
  EXPECT_EQ(at(recorder.service().chunks().back(), {"chunk_details", "user_attributes", "custom_user_id"}),
            Value("cem"));
}

TEST(DeliveryTest, WhatEndsBeforeTheStartUpHasEndedIsCutAtItsEnd) {
  const std::function<void()> leave = Application::willResignActive;
  const std::function<void()> flush = [] { KelvoSDK::flush(0ms, {}); };
  const struct {
    kelvo::Delivery delivery;
    std::function<void()> call;
    std::size_t chunks;
  } cases[] = {{kelvo::Delivery::complete, leave, 1},
               {kelvo::Delivery::complete, flush, 1},
               {kelvo::Delivery::classic, flush, 1},
               {kelvo::Delivery::classic, leave, 0}};  // the timer cuts
  for (const auto& [delivery, call, chunks] : cases) {
    Recorder recorder{Recorder::NotStarted()};
    recorder.service().fail("/enabled-status", Fault::late(300ms));
    KelvoSDK::start(optionsWith(delivery));
    KelvoSDK::logAppEventWithName("Early");
    call();
    recorder.advance(1s);
    EXPECT_EQ(recorder.service().chunks().size(), chunks);
    EXPECT_EQ(arrived(recorder), Texts(chunks, "Early"));
    recorder.advance(30s);
    EXPECT_EQ(recorder.service().chunks().size(), 1U) << "nothing is left for the timer";
    EXPECT_EQ(recorder.delivered("klv_app_opened"), 1);
  }
}

TEST(DeliveryTest, AGrantIsRememberedAndADenialObeyed) {
  kelvo::Options options("shop");
  options.consentRequired = true;
  options.maxHeldCalls = 2;
  Recorder recorder(options);
  for (const char* name : {"One", "Two", "Three"}) KelvoSDK::logAppEventWithName(name);
  recorder.advance(1h);
  EXPECT_TRUE(recorder.service().requests().empty());
  KelvoSDK::setConsent(kelvo::Consent::granted);
  recorder.settle();
  KelvoSDK::logAppEventWithName("Four");
  recorder.relaunch();
  KelvoSDK::logAppEventWithName("Five");
  recorder.advance(30s);
  EXPECT_EQ(arrived(recorder), (Texts{"Five", "Four", "Three", "Two"})) << "nobody is asked twice";
  KelvoSDK::setConsent(kelvo::Consent::denied);
  recorder.settle();
  const auto requests = recorder.service().requests().size();
  recorder.relaunch();
  KelvoSDK::logAppEventWithName("Six");
  EXPECT_EQ(KelvoSDK::flushAndWait(1s).outcome, kelvo::FlushOutcome::notCollecting);
  EXPECT_EQ(KelvoSDK::consent(), kelvo::Consent::denied);
  EXPECT_EQ(recorder.service().requests().size(), requests);
  EXPECT_EQ(arrived(recorder), Texts()) << "the denial erases";
}

}  // namespace
