#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "sqlite/FMKLVDatabase.h"

/// Compares inserts through the SQLite access layer, with named parameters, to the same statements through SQLite's C
/// interface. The file is set up like the library's own. The argument is the number of rows per transaction.
namespace kelvo {
namespace {

constexpr const char* kTable =
    "create table events (identifier integer primary key autoincrement, type, name, details, time)";
constexpr const char* kInsert = "insert into events (type, name, details, time) values (:type, :name, :details, :time)";
constexpr std::size_t kRows = 1000;
constexpr std::int64_t kAppEvent = 4;  // the stored type of an application event

struct Row {
  std::int64_t type;
  std::string name, details;
  double time;
};

std::vector<Row> rows() {
  std::vector<Row> result;
  for (std::size_t i = 0; i < kRows; ++i) {
    result.push_back({kAppEvent, "Purchase of item number " + std::to_string(i),
                      R"({"event_name":"Purchase","attributes":{"item":"book","price":12.5,"count":)" +
                          std::to_string(i) + R"(,"currency":"EUR","shop":"main street","voucher":false}})",
                      1000.5 + static_cast<double>(i)});
  }
  return result;
}

Dictionary dictionary(const Row& row) {
  return {{"type", row.type}, {"name", row.name}, {"details", row.details}, {"time", row.time}};
}

/// A database in a temporary directory. The destructor removes both.
struct File {
  File() {
    auto pattern = (std::filesystem::temp_directory_path() / "kelvo-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    directory = pattern;
    db.emplace((directory / "bench.sqlite").string());
    if (!db->open() || !db->executeStatements("pragma journal_mode=WAL; pragma synchronous=NORMAL") ||
        !db->executeUpdate(kTable)) {
      std::abort();
    }
  }
  ~File() {
    db.reset();
    std::filesystem::remove_all(directory);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  std::filesystem::path directory;
  std::optional<FMKLVDatabase> db;
};

/// Counts the rows as the benchmark's items, and fails the benchmark if the table has another number of rows.
void finish(benchmark::State& state, std::int64_t transactions, FMKLVDatabase& db) {
  state.SetItemsProcessed(transactions * state.range(0));
  if (db.intForQuery("select count(*) from events") != transactions * state.range(0)) state.SkipWithError("rows lost");
}

void bareInterface(benchmark::State& state) {
  File file;
  const auto all = rows();
  sqlite3* db = file.db->sqliteHandle();
  const auto prepared = [&](const char* sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK) std::abort();
    return statement;
  };
  const auto run = [](sqlite3_stmt* statement) {
    if (sqlite3_step(statement) != SQLITE_DONE || sqlite3_reset(statement) != SQLITE_OK) std::abort();
  };
  sqlite3_stmt* begin = prepared("begin exclusive transaction");
  sqlite3_stmt* commit = prepared("commit transaction");
  sqlite3_stmt* insert = prepared(kInsert);
  const int type = sqlite3_bind_parameter_index(insert, ":type"), name = sqlite3_bind_parameter_index(insert, ":name"),
            details = sqlite3_bind_parameter_index(insert, ":details"),
            time = sqlite3_bind_parameter_index(insert, ":time");
  std::size_t next = 0;
  std::int64_t transactions = 0;
  for (auto _ : state) {
    run(begin);
    for (std::int64_t i = 0; i < state.range(0); ++i) {
      const Row& row = all[next++ % kRows];
      sqlite3_bind_int64(insert, type, row.type);
      sqlite3_bind_text(insert, name, row.name.data(), static_cast<int>(row.name.size()), SQLITE_STATIC);
      sqlite3_bind_text(insert, details, row.details.data(), static_cast<int>(row.details.size()), SQLITE_STATIC);
      sqlite3_bind_double(insert, time, row.time);
      run(insert);
    }
    run(commit);
    ++transactions;
  }
  for (auto* statement : {begin, commit, insert}) sqlite3_finalize(statement);
  finish(state, transactions, *file.db);
}

/// Whether the arguments of all inserts are built before the measurement, or each during it.
enum class Arguments { builtBefore, builtForEachRow };

void insertThroughLayer(benchmark::State& state, bool cachesStatements, Arguments arguments) {
  File file;
  const auto all = rows();
  std::vector<Dictionary> prebuilt;
  for (const Row& row : all) prebuilt.push_back(dictionary(row));
  FMKLVDatabase& db = *file.db;
  db.setShouldCacheStatements(cachesStatements);
  std::size_t next = 0;
  std::int64_t transactions = 0;
  for (auto _ : state) {
    if (!db.beginTransaction()) std::abort();
    for (std::int64_t i = 0; i < state.range(0); ++i, ++next) {
      const auto row = next % kRows;
      if (!db.executeUpdate(kInsert, arguments == Arguments::builtBefore ? prebuilt[row] : dictionary(all[row])))
        std::abort();
    }
    if (!db.commit()) std::abort();
    ++transactions;
  }
  finish(state, transactions, db);
}

void cached(benchmark::State& state) {
  insertThroughLayer(state, true, Arguments::builtBefore);
}
void cachedWithADictionaryBuiltForEachRow(benchmark::State& state) {
  insertThroughLayer(state, true, Arguments::builtForEachRow);
}
void uncached(benchmark::State& state) {
  insertThroughLayer(state, false, Arguments::builtBefore);
}

// Each runs the same number of transactions, so that their files grow to the same size.
#define KELVO_BENCH_INSERTS(function)             \
  BENCHMARK(function)->Arg(1)->Iterations(20000); \
  BENCHMARK(function)->Arg(100)->Iterations(1000)
KELVO_BENCH_INSERTS(bareInterface);
KELVO_BENCH_INSERTS(cached);
KELVO_BENCH_INSERTS(cachedWithADictionaryBuiltForEachRow);
KELVO_BENCH_INSERTS(uncached);

}  // namespace
}  // namespace kelvo
