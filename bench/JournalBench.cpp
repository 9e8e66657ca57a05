// Measures a host call's way into the journal and out of it.
#include <benchmark/benchmark.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "Parts.h"
#include "journal/KLVJournal.h"
#include "util/KLVDictionaryCoding.h"

namespace kelvo::bench {
namespace {

/// A journal of the default size in memory.
class OpenJournal {
 public:
  OpenJournal() {
    if (mkdtemp(directory_.data()) == nullptr) throw std::runtime_error("no temporary directory");
    static_cast<void>(journal_.open({directory_, "", std::uint64_t{4} << 20}, 1, 0, {}));
    if (!journal_.isOpen()) throw std::runtime_error("no journal");
    journal_.setSession("1700000000000-0B3E5F5A-6F0C-4C2B-9E1D-2A7F3B6C5D4E");
  }
  OpenJournal(const OpenJournal&) = delete;
  OpenJournal& operator=(const OpenJournal&) = delete;
  ~OpenJournal() { std::filesystem::remove_all(directory_); }

  KLVJournal* operator->() { return &journal_; }
  std::uint64_t write(const std::string& info) {
    return journal_.write(KLVJournalKind::appEvent, 0, Date(), name(1), info);
  }

 private:
  std::string directory_ = "/dev/shm/kelvo-bench-XXXXXX";
  KLVJournal journal_;
};

/// Measures one write and one `finish`: together, they are what the journal costs a call.
void JournalCall(benchmark::State& state) {
  OpenJournal journal;
  const std::string info = codedForm(attributes(1)).value();
  for (auto _ : state) journal->finish(journal.write(info));
}
BENCHMARK(JournalCall);

/// Writes alone, until the ring is half full.
void JournalWrite(benchmark::State& state) {
  OpenJournal journal;
  const std::string info = codedForm(attributes(1)).value();
  std::vector<std::uint64_t> written(4000);
  while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(written.size()))) {
    for (auto& sequence : written) sequence = journal.write(info);
    state.PauseTiming();
    for (const auto sequence : written) journal->finish(sequence);
    state.ResumeTiming();
  }
}
BENCHMARK(JournalWrite);

/// One write a millisecond, with cold caches.
void JournalPacedWrite(benchmark::State& state) {
  OpenJournal journal;
  const std::string info = codedForm(attributes(1)).value();
  for (auto _ : state) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const auto begin = std::chrono::steady_clock::now();
    const std::uint64_t sequence = journal.write(info);
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    journal->finish(sequence);
  }
}
BENCHMARK(JournalPacedWrite)->UseManualTime()->Iterations(1000);

}  // namespace
}  // namespace kelvo::bench
