#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "journal/JournalTest.h"
#include "util/KLVDictionaryCoding.h"

namespace kelvo::test {
namespace {

constexpr int kThreads = 4;
constexpr int kMostCalls = 4000;  // of a thread

/// What the child has told its parent before it was killed.
struct Report {
  std::array<std::atomic<int>, kThreads> returned;  // calls of the thread whose `write` has returned
  std::array<std::array<std::atomic<bool>, kMostCalls>, kThreads> isFinishing;  // the database would have it
};

/// Memory that the child shares with its parent.
template <class T>
class Shared {
 public:
  Shared() : memory_(::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {}
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  ~Shared() { ::munmap(memory_, sizeof(T)); }
  T* operator->() const { return static_cast<T*>(memory_); }

 private:
  void* memory_;
};

std::string textOf(int thread, int call) {
  return std::to_string(thread) + " " + std::to_string(call);
}

/// Writes calls, and finishes most of them in another order.
void writeCalls(KLVJournal& journal, Report& report, int thread) {
  std::mt19937 random(static_cast<unsigned>(thread));
  std::vector<std::pair<std::uint64_t, int>> waiting;
  for (int call = 0; call < kMostCalls; ++call) {
    const Dictionary info{{"pad", std::string(random() % 300, 'x')}, {"call", call}};
    const auto number = journal.write(KLVJournalKind::appEvent, 0, Date(), textOf(thread, call), codedForm(info));
    const auto index = static_cast<std::size_t>(thread);
    if (number == 0) report.isFinishing[index][static_cast<std::size_t>(call)] = true;  // full: it may be lost
    report.returned[index] = call + 1;
    if (number > 0 && call % 500 > 0) waiting.emplace_back(number, call);  // a few are never finished
    if (waiting.size() < 20) continue;
    std::swap(waiting[random() % waiting.size()], waiting.back());
    report.isFinishing[index][static_cast<std::size_t>(waiting.back().second)] = true;
    journal.finish(waiting.back().first);
    waiting.pop_back();
  }
}

/// Runs `body` in a child process, which counts as no forked one, and kills it `after` it has begun.
template <class Body>
void runAndKill(
    std::chrono::microseconds after, const Body& body, const std::function<bool()>& hasBegun = [] { return true; }) {
  const pid_t child = ::_Fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    body();
    for (;;) ::pause();
  }
  while (!hasBegun()) std::this_thread::sleep_for(std::chrono::microseconds(50));
  std::this_thread::sleep_for(after);
  ::kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the child failed by itself: " << status;
}

TEST_F(JournalTest, AKillLosesNoCallThatHasReturned) {
  settings.bytes = 128 << 10;
  std::mt19937 random(1);
  std::size_t found = 0, torn = 0;
  for (int kill = 0; kill < 200; ++kill) {
    const Shared<Report> report;
    const auto writeOnThreads = [&] {
      static_cast<void>(open());
      std::vector<std::thread> threads;
      for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&, i] { writeCalls(*journal, *report.operator->(), i); });
      for (auto& thread : threads) thread.join();
    };
    runAndKill(std::chrono::microseconds(random() % 5000), writeOnThreads, [&] { return report->returned[0] > 0; });
    const auto entries = open();
    found += entries.size();
    torn += journal->torn();
    std::map<std::string, int> times;
    for (const auto& entry : entries) {
      ASSERT_EQ(++times[*entry.call.text], 1) << *entry.call.text;
      journal->finish(entry.sequence);
    }
    for (int thread = 0; thread < kThreads; ++thread) {
      const auto index = static_cast<std::size_t>(thread);
      for (int call = 0; call < report->returned[index]; ++call) {
        if (report->isFinishing[index][static_cast<std::size_t>(call)]) continue;
        ASSERT_EQ(times[textOf(thread, call)], 1) << "lost: " << textOf(thread, call);
      }
    }
  }
  EXPECT_GT(found, 1000U) << "the kills hit processes at work";
  RecordProperty("torn", static_cast<int>(torn));
}

TEST_F(JournalTest, AKillDuringTheOpeningNeitherLosesNorDoubles) {
  const std::string runtime = home() + "/killed";
  std::filesystem::create_directories(runtime);
  ::chmod(runtime.c_str(), 0700);
  static_cast<void>(open());
  std::set<std::string> expected;
  for (int i = 0; i < 100; ++i) expected.insert(textOf(0, i));
  for (const auto& text : expected) ASSERT_NE(write(text), 0U);
  std::mt19937 random(2);
  for (int kill = 0; kill < 200; ++kill) {
    runAndKill(std::chrono::microseconds(random() % 1500), [&] {
      for (int i = 0;; ++i) {
        settings.runtimeDirectory = i % 2 == 0 ? runtime : "";  // without it, a file beside the hidden one
        settings.bytes = kSmall + static_cast<std::uint64_t>(i % 4) * 4096;
        static_cast<void>(open({}, kEpoch + static_cast<std::uint64_t>(i % 3)));
      }
    });
    settings.runtimeDirectory = runtime;
    const auto found = texts(open());
    ASSERT_EQ(found.size(), expected.size());
    ASSERT_EQ(std::set<std::string>(found.begin(), found.end()), expected);
  }
}

}  // namespace
}  // namespace kelvo::test
