// What any library of this kind costs at least, without Kelvo: handing work to another thread, and storing rows. Plays
// the part that its argument names, and prints its figures.
#include <sqlite3.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "process/Measuring.h"

namespace kelvo::bench {
namespace {

constexpr std::size_t kCalls = 10000;
constexpr std::size_t kPacedCalls = 1000;
constexpr std::size_t kRows = 50000;
constexpr std::size_t kRowsPerGroup = 512;

/// Hands numbers to a thread that throws them away.
class BareQueue {
 public:
  BareQueue() : thread_([this] { drain(); }) {}
  BareQueue(const BareQueue&) = delete;
  BareQueue& operator=(const BareQueue&) = delete;
  ~BareQueue() {
    {
      const std::lock_guard lock(mutex_);
      isClosed_ = true;
    }
    wake_.notify_one();
    thread_.join();
  }

  void push(std::size_t number) {
    bool wasEmpty = false;
    {
      const std::lock_guard lock(mutex_);
      wasEmpty = waiting_.empty();
      waiting_.push_back(number);
    }
    if (wasEmpty) wake_.notify_one();
  }

 private:
  void drain() {
    std::vector<std::size_t> taken;
    std::unique_lock lock(mutex_);
    while (!isClosed_ || !waiting_.empty()) {
      wake_.wait(lock, [this] { return isClosed_ || !waiting_.empty(); });
      taken.swap(waiting_);
      lock.unlock();
      taken.clear();
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::vector<std::size_t> waiting_;
  bool isClosed_ = false;
  std::thread thread_;
};

void queue(std::size_t count, std::chrono::microseconds pause) {
  BareQueue queue;
  const double cpu = cpuSeconds();
  printPercentiles(durations(count, pause, [&](std::size_t number) { queue.push(number); }));
  printFigure("cpu", (cpuSeconds() - cpu) * 1000 / static_cast<double>(count));
}

[[noreturn]] void fail(sqlite3* db) {
  std::fprintf(stderr, "%s\n", sqlite3_errmsg(db));
  std::_Exit(1);
}

/// Inserts rows of the size of the measured events into a file that is set up like the library's, with `perTransaction`
/// rows a transaction and statements that stay prepared.
void rows(std::size_t perTransaction) {
  const std::string path = std::string(std::getenv("KELVO_HOME")) + "/rows.sqlite";
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK ||
      sqlite3_exec(db,
                   "pragma journal_mode=WAL; pragma synchronous=NORMAL; create table events (identifier integer "
                   "primary key autoincrement, id text, attributes text, time real, type text)",
                   nullptr, nullptr, nullptr) != SQLITE_OK)
    fail(db);
  const auto prepared = [&](const char* sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK) fail(db);
    return std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>(statement, &sqlite3_finalize);
  };
  const auto run = [&](sqlite3_stmt* statement) {
    if (sqlite3_step(statement) != SQLITE_DONE || sqlite3_reset(statement) != SQLITE_OK) fail(db);
  };
  const auto begin = prepared("begin exclusive"), commit = prepared("commit"),
             insert = prepared("insert into events (id, attributes, time, type) values ('Purchase', ?, ?, '4')");
  const std::string attributes = R"({"campaign":"spring","currency":"EUR","item":"book","payment":"card",)"
                                 R"("position":4711,"price":12.5,"quantity":3,"shop":"Main Street","count":41})";
  const auto start = Clock::now();
  for (std::size_t row = 0; row < kRows; ++row) {
    if (row % perTransaction == 0) run(begin.get());
    sqlite3_bind_text(insert.get(), 1, attributes.data(), static_cast<int>(attributes.size()), SQLITE_STATIC);
    sqlite3_bind_double(insert.get(), 2, static_cast<double>(row));
    run(insert.get());
    if ((row + 1) % perTransaction == 0 || row + 1 == kRows) run(commit.get());
  }
  printFigure("rate", static_cast<double>(kRows) / secondsSince(start));
}

}  // namespace
}  // namespace kelvo::bench

int main(int count, char** arguments) {
  using namespace kelvo::bench;
  const std::string part = count > 1 ? arguments[1] : "";
  if (part == "queue")
    queue(kCalls, {});
  else if (part == "paced-queue")
    queue(kPacedCalls, std::chrono::milliseconds(1));
  else if (part == "one-row")
    rows(1);
  else if (part == "grouped-rows")
    rows(kRowsPerGroup);
  else
    return 2;
}
