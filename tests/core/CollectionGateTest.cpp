#include "core/CollectionGate.h"

#include <gtest/gtest.h>

#include "support/LogCapture.h"

namespace kelvo::test {
namespace {

using State = CollectionGate::State;
using Decision = CollectionGate::Decision;

/// Returns a gate in `state` whose database is ready, or not.
CollectionGate gateIn(State state, bool databaseExists) {
  CollectionGate gate;
  if (state != State::idle) static_cast<void>(gate.begin());
  if (state == State::running) gate.setEnabled(true);
  if (state == State::terminated) gate.terminate();
  if (databaseExists) gate.openDatabase();
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
    EXPECT_EQ(gate.admitAttributes({true, {{"plan", "gold"}}}, exists), stores);
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
  EXPECT_FALSE(gate.admitAttributes({}, false));
  gate.openDatabase();
  gate.terminate();
  EXPECT_TRUE(gate.takeEvents().empty());
  EXPECT_TRUE(gate.takeAttributes().empty());
  EXPECT_TRUE(gate.admitEvent(event));
}

}  // namespace
}  // namespace kelvo::test
