#include "core/CollectionGate.h"

#include <gtest/gtest.h>

#include "support/LogCapture.h"

namespace kelvo::test {
namespace {

using State = CollectionGate::State;
using Decision = CollectionGate::Decision;

/// Returns a gate in `state` whose database and records exist, or not.
CollectionGate gateIn(State state, bool destinationsExist) {
  CollectionGate gate;
  if (state != State::idle) static_cast<void>(gate.begin());
  if (state == State::running) gate.setEnabled(true);
  if (state == State::terminated) gate.terminate();
  if (destinationsExist) {
    EXPECT_TRUE(gate.openDatabase().empty());
    gate.openRecords();
  }
  EXPECT_EQ(gate.state(), state);
  return gate;
}

TEST(CollectionGate, StoresWhileRunningIfTheDestinationExistsAndRefusesOnceTerminated) {
  const LogCapture log;
  const struct {
    State state;
    bool destinationExists;
    Decision decision;
  } cases[] = {
      {State::idle, false, Decision::buffer},         {State::idle, true, Decision::buffer},
      {State::initialising, false, Decision::buffer}, {State::initialising, true, Decision::buffer},
      {State::running, false, Decision::buffer},      {State::running, true, Decision::store},
      {State::terminated, false, Decision::refuse},   {State::terminated, true, Decision::refuse},
  };
  const auto event = std::make_shared<KLVEvent>(KLVEventType::app);
  std::size_t refusedEvents = 0, refusedCalls = 0;
  for (const auto& [state, exists, decision] : cases) {
    SCOPED_TRACE(testing::Message() << "state " << static_cast<int>(state) << ", destination " << exists);
    CollectionGate gate = gateIn(state, exists);
    const bool stores = decision == Decision::store;
    const bool buffers = decision == Decision::buffer;
    EXPECT_EQ(gate.decide(exists), decision);
    EXPECT_EQ(gate.admitEvent(event), stores);
    EXPECT_EQ(gate.admitEventUnbuffered(), stores);
    EXPECT_EQ(gate.admitAttributes({true, {{"plan", "gold"}}}), stores);
    EXPECT_EQ(gate.admitToken("t", exists), stores);
    EXPECT_EQ(gate.takeEvents().size(), buffers ? 1u : 0u);
    EXPECT_EQ(gate.takeAttributes().size(), buffers ? 1u : 0u);
    EXPECT_EQ(gate.token().has_value(), buffers);
    refusedEvents += decision == Decision::refuse ? 2 : buffers ? 1 : 0;  // the unbuffered form never buffers
    refusedCalls += decision == Decision::refuse ? 2 : 0;
    EXPECT_EQ(log.count("<KLV ERROR> SDK Disabled - ignoring event"), refusedEvents);
    EXPECT_EQ(log.count("<KLV ERROR> SDK Disabled - ignoring call"), refusedCalls);
  }
}

TEST(CollectionGate, ChangesItsStateForwardsExceptForTheSwitchOfTheService) {
  CollectionGate gate;
  gate.setEnabled(true);
  EXPECT_EQ(gate.state(), State::idle) << "collection is enabled by a start-up only";
  EXPECT_TRUE(gate.begin());
  EXPECT_FALSE(gate.begin());
  gate.setEnabled(true);
  gate.setEnabled(false);
  EXPECT_EQ(gate.state(), State::initialising);
  gate.terminate();
  gate.setEnabled(true);
  EXPECT_FALSE(gate.begin());
  EXPECT_EQ(gate.state(), State::terminated);
}

TEST(CollectionGate, TerminatingDropsTheBuffersAndLeavesAnOpenDatabaseInUse) {
  CollectionGate gate = gateIn(State::running, false);
  const auto event = std::make_shared<KLVEvent>(KLVEventType::app);
  EXPECT_FALSE(gate.admitEvent(event));
  EXPECT_FALSE(gate.admitAttributes({}));
  EXPECT_EQ(gate.openDatabase().size(), 1u);
  EXPECT_FALSE(gate.admitEvent(event)) << "the caller has not stored the first event yet";
  EXPECT_EQ(gate.openDatabase().size(), 1u);
  EXPECT_TRUE(gate.openDatabase().empty());
  gate.terminate();
  EXPECT_TRUE(gate.takeAttributes().empty());
  EXPECT_TRUE(gate.admitEvent(event));
}

TEST(CollectionGate, AnEventWaitsOnceAndIsCountedOnceWhateverComesBetweenItsTwoCalls) {
  const auto app = std::make_shared<KLVEvent>(KLVEventType::app);
  const auto client = std::make_shared<KLVEvent>(KLVEventType::client);
  const auto aggregate = std::make_shared<KLVEvent>(KLVEventType::aggregate);
  using Events = std::vector<std::shared_ptr<KLVEvent>>;

  CollectionGate waiting = gateIn(State::running, false);
  EXPECT_FALSE(waiting.admitEvent(app));
  EXPECT_FALSE(waiting.admitEvent(aggregate));  // another thread's
  EXPECT_FALSE(waiting.admitCount(app));
  EXPECT_FALSE(waiting.admitCount(client));
  EXPECT_EQ(waiting.takeEvents(), (Events{app, aggregate, client}));

  CollectionGate opening = gateIn(State::running, false);
  EXPECT_FALSE(opening.admitEvent(app));
  EXPECT_EQ(opening.openDatabase(), Events{app}) << "the caller counts it";
  EXPECT_TRUE(opening.openDatabase().empty());
  EXPECT_FALSE(opening.admitCount(app));
  EXPECT_TRUE(opening.admitEvent(app));
  EXPECT_TRUE(opening.admitCount(app)) << "the database exists, so the next event is counted";
}

}  // namespace
}  // namespace kelvo::test
