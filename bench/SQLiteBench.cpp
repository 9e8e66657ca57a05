#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "sqlite/FMKLVDatabase.h"

/// Measures the cost of the SQLite layer: inserts rows with named parameters through the layer and, for comparison,
/// runs the same statements through the C interface. The file has the settings of the library's own database. The
/// benchmark's argument is the number of rows per transaction.
namespace kelvo {
namespace {

constexpr const char* kTable =
    "create table events (identifier integer primary key autoincrement, type, name, details, time)";
constexpr const char* kInsert = "insert into events (type, name, details, time) values (:type, :name, :details, :time)";
constexpr std::size_t kRows = 1000;

struct Row {
  std::int64_t type;
  std::string name, details;
  double time;
};

std::vector<Row> rows() {
  std::vector<Row> all;
  for (std::size_t i = 0; i < kRows; ++i) {
    all.push_back({4, "Purchase of item number " + std::to_string(i),
                   R"({"event_name":"Purchase","attributes":{"item":"book","price":12.5,"count":)" + std::to_string(i) +
                       R"(,"currency":"EUR","shop":"main street","voucher":false}})",
                   1000.5 + static_cast<double>(i)});
  }
  return all;
}

Dictionary dictionary(const Row& row) {
  return {{"type", row.type}, {"name", row.name}, {"details", row.details}, {"time", row.time}};
}

/// A database in its own directory. The destructor removes both.
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

enum class Arguments { kept, built };

void layer(benchmark::State& state, bool cache, Arguments arguments) {
  File file;
  const auto all = rows();
  std::vector<Dictionary> kept;
  for (const Row& row : all) kept.push_back(dictionary(row));
  FMKLVDatabase& db = *file.db;
  db.setShouldCacheStatements(cache);
  std::size_t next = 0;
  std::int64_t transactions = 0;
  for (auto _ : state) {
    if (!db.beginTransaction()) std::abort();
    for (std::int64_t i = 0; i < state.range(0); ++i, ++next) {
      const auto row = next % kRows;
      if (!db.executeUpdate(kInsert, arguments == Arguments::kept ? kept[row] : dictionary(all[row]))) std::abort();
    }
    if (!db.commit()) std::abort();
    ++transactions;
  }
  finish(state, transactions, db);
}

void cached(benchmark::State& state) {
  layer(state, true, Arguments::kept);
}
void cachedWithADictionaryBuiltForEachRow(benchmark::State& state) {
  layer(state, true, Arguments::built);
}
void uncached(benchmark::State& state) {
  layer(state, false, Arguments::kept);
}

// Fixed numbers of transactions, so that the files of all benchmarks grow alike.
#define KELVO_BENCH_INSERTS(function)             \
  BENCHMARK(function)->Arg(1)->Iterations(20000); \
  BENCHMARK(function)->Arg(100)->Iterations(1000)
KELVO_BENCH_INSERTS(bareInterface);
KELVO_BENCH_INSERTS(cached);
KELVO_BENCH_INSERTS(cachedWithADictionaryBuiltForEachRow);
KELVO_BENCH_INSERTS(uncached);

}  // namespace
}  // namespace kelvo
