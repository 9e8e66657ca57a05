// Measures tasks of a queue, and filtered log lines.
#include <benchmark/benchmark.h>

#include <latch>

#include "Parts.h"
#include "platform/DispatchQueue.h"

namespace kelvo::bench {
namespace {

/// The cost for the submitter while the queue is busy.
void SubmitTask(benchmark::State& state) {
  DispatchQueue queue("bench");
  for (auto _ : state) queue.async([] {});
  queue.sync([] {});
}
BENCHMARK(SubmitTask);

/// Submits a task that another thread runs, and waits for it.
void HopAndBack(benchmark::State& state) {
  DispatchQueue queue("bench");
  for (auto _ : state) {
    std::latch done(1);
    queue.async([&] { done.count_down(); });
    done.wait();
  }
}
BENCHMARK(HopAndBack)->UseRealTime();

void SyncOnAnIdleQueue(benchmark::State& state) {
  DispatchQueue queue("bench");
  for (auto _ : state) queue.sync([] {});
}
BENCHMARK(SyncOnAnIdleQueue);

void FilteredLogLine(benchmark::State& state) {
  KLVLogger::setLogLevel(KLVLogger::Level::error);
  const Dictionary info = attributes(1);
  for (auto _ : state) KLV_DEBUG("Saving: {}", info);
}
BENCHMARK(FilteredLogLine);

}  // namespace
}  // namespace kelvo::bench
