// Measures events on their way into the database and from there into a chunk.
#include <benchmark/benchmark.h>

#include <future>

#include "Parts.h"
#include "platform/JSON.h"
#include "storage/KLVDataHandler.h"
#include "storage/KLVPersistantStore.h"
#include "upload/KLVChunkDetails.h"

namespace kelvo::bench {
namespace {

constexpr std::size_t kBatch = 1000;  // events that wait together
constexpr std::size_t kSlice = 1000;  // events that are read at once

void waitUntilStored(KLVDataHandler& handler) {
  std::promise<void> stored;
  handler.whenStored([&] { stored.set_value(); });
  stored.get_future().wait();
}

/// Inserts with one statement per transaction.
void InsertOne(benchmark::State& state) {
  const std::string session = freshSession();
  KLVPersistantStore store;
  store.createEventsTableWithTableName("events_" + session);
  const Dictionary row = event(1)->jsonDict();
  for (auto _ : state) benchmark::DoNotOptimize(store.insertDataWithTableName("events_" + session, row));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(InsertOne);

/// Stores events as the library does: each with its lifetime count, and all waiting writes in one transaction.
void StoreEvents(benchmark::State& state) {
  const std::string session = freshSession();
  KLVDataHandler handler(session);
  handler.startWithCompletionHandler({});
  std::size_t number = 0;
  for (auto _ : state) {
    for (std::size_t i = 0; i < kBatch; ++i) {
      const auto one = event(number++);
      handler.saveEventInfo(one, session);
      handler.upsertLifetimeEvent(one);
    }
    waitUntilStored(handler);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}
BENCHMARK(StoreEvents)->Unit(benchmark::kMillisecond)->UseRealTime();

/// Reads and translates the events of a chunk, and writes the chunk's JSON.
void BuildChunk(benchmark::State& state) {
  const std::string session = freshSession();
  const auto count = static_cast<std::size_t>(state.range(0));
  KLVDataHandler handler(session);
  handler.startWithCompletionHandler({});
  for (std::size_t i = 0; i < count; ++i) handler.saveEventInfo(event(i), session);
  waitUntilStored(handler);
  for (auto _ : state) {
    KLVChunkDetails details;
    const auto add = [&](const KLVStoredEvent& event) { details.addEvent(event); };
    for (std::size_t first = 1; first <= count; first += kSlice) handler.readEvents(session, first, count, kSlice, add);
    benchmark::DoNotOptimize(details.takeBody({}, {}));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BuildChunk)->Arg(100)->Arg(10000)->Unit(benchmark::kMillisecond);

void CountEvents(benchmark::State& state) {
  const std::string session = freshSession();
  KLVDataHandler handler(session);
  handler.startWithCompletionHandler({});
  for (std::size_t i = 0; i < static_cast<std::size_t>(state.range(0)); ++i) handler.saveEventInfo(event(i), session);
  waitUntilStored(handler);
  for (auto _ : state) benchmark::DoNotOptimize(handler.numberOfEventsWithIdentifier(session));
}
BENCHMARK(CountEvents)->Arg(1000)->Arg(100000);

}  // namespace
}  // namespace kelvo::bench
