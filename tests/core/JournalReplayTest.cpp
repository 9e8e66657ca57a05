#include "core/JournalReplay.h"

#include <gtest/gtest.h>

#include "core/HomeJournal.h"

namespace kelvo::test {
namespace {

using Kind = KLVJournalKind;

struct NoCounts final : KLVLifetimeCounts {
  std::int64_t getLifetimeCountForEventWithName(const std::string&) override { return 0; }
};

/// Returns "SESSION TYPE NAME@TIME" of each event, with its duration if it has one.
std::vector<std::string> eventsOf(const std::vector<KLVJournalEntry>& entries) {
  NoCounts counts;
  std::vector<std::string> all;
  const JournalReplay replay(entries, counts, [&](const auto& event, const std::string& session) {
    const Value duration = event->additionalInfo()["duration"];
    const bool hasName = event->eventType() != KLVEventType::customError;  // its name is random
    all.push_back(session + " " + std::string(stringFromType(event->eventType())) +
                  (hasName ? " " + event->identifier() : "") + "@" + std::to_string(event->createdTime()) +
                  (duration.isNull() ? "" : " for " + description(duration)));
    EXPECT_NE(event->call().sequence(), 0U);
  });
  return all;
}

class Replay : public testing::Test {
 protected:
  /// An entry of the session `id`, whose process began at `start` seconds, at `time` seconds later.
  static KLVJournalEntry entry(Kind kind, int time, std::optional<std::string> text = {}, const std::string& id = "S",
                               int start = 100) {
    const auto at = [](int seconds) { return Date(std::chrono::seconds(seconds)); };
    static std::uint64_t number = 0;
    return {++number, HomeJournal::Session{at(start), id}.text(), {kind, 0, at(start + time), std::move(text), {}}};
  }
  static KLVJournalEntry ofPlugin(int time, KLVEventType type) {
    auto made = entry(Kind::pluginEvent, time);
    made.call.flags = static_cast<std::uint8_t>(type);
    return made;
  }
};

TEST_F(Replay, MakesTheEventsOfEachSessionWithTheirOwnTimes) {
  EXPECT_EQ(
      eventsOf({entry(Kind::appEvent, 3, "Pay"), entry(Kind::appEvent, 7, "Early", "", 5000),
                entry(Kind::clientEvent, 4, "tip"), entry(Kind::aggregateEvent, 4, "Rate"),
                entry(Kind::customError, 5, "oops"), entry(Kind::becameActive, 6), ofPlugin(7, KLVEventType::nudge),
                ofPlugin(8, KLVEventType::system), entry(Kind::resignsActive, 9)}),
      (std::vector<std::string>{"S App Pay@3", " App Early@7", "S Client tip@4", "S Agg Rate@4", "S KLVCustomError@5",
                                "S System FOREGROUND@6", "S Nudge Nudge@7", "S System BACKGROUND@9"}));
}

TEST_F(Replay, LetsAScreenLastUntilTheNextOneOrBackgroundOrTheLastCallOfItsSession) {
  EXPECT_EQ(eventsOf({entry(Kind::didShow, 1, "Home"), entry(Kind::didShow, 2, "Home"), entry(Kind::screen, 5, "List"),
                      entry(Kind::didShow, 1, "Other", "T", 900), entry(Kind::resignsActive, 9),
                      entry(Kind::didShow, 11, "Cart"), entry(Kind::appEvent, 15, "Pay")}),
            (std::vector<std::string>{"S Navigation Home@1 for 4", "S Navigation Home@5 for 4", "S System BACKGROUND@9",
                                      "S App Pay@15", "S Navigation Cart@11 for 4", "T Navigation Other@1 for 0"}));
}

TEST_F(Replay, CollectsTheAttributesInTheirOrderAndTheLatestToken) {
  NoCounts counts;
  auto plan = entry(Kind::userAttributes, 1), tab = entry(Kind::sessionAttributes, 2);
  plan.call.info = Dictionary{{"plan", "gold"}};
  tab.call.info = Dictionary{{"tab", 1}};
  std::vector<KLVJournalEntry> entries{plan,
                                       entry(Kind::userIdentifier, 2, "ann"),
                                       tab,
                                       entry(Kind::willShow, 1, "x"),
                                       entry(Kind::deviceToken, 3, "old"),
                                       entry(Kind::deviceToken, 4, "new")};
  const auto ofUser = JournalReplay::takeUserAttributes(entries);
  ASSERT_EQ(ofUser.size(), 2U);
  EXPECT_EQ(ofUser[0].attributes, *plan.call.info);
  EXPECT_EQ(ofUser[1].attributes, (Dictionary{{"custom_user_id", "ann"}}));
  bool hasEvent = false;
  const JournalReplay replay(entries, counts, [&](const auto&, const auto&) { hasEvent = true; });
  ASSERT_EQ(replay.ofSessions.count("S"), 1U);
  EXPECT_EQ(replay.ofSessions.at("S")[0].attributes, *tab.call.info);
  EXPECT_FALSE(hasEvent);
  ASSERT_TRUE(replay.token);
  EXPECT_EQ(replay.token->text, "new");
  EXPECT_EQ(replay.token->call.sequence(), entries.back().sequence);
}

}  // namespace
}  // namespace kelvo::test
