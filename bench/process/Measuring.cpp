#include "process/Measuring.h"

#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

namespace kelvo::bench {
namespace {

constexpr int kBusyMilliseconds = 1000;
constexpr auto kLongestWait = std::chrono::minutes(10);
constexpr std::int64_t kKilobyte = 1024;

}  // namespace

std::int64_t DatabaseWatcher::number(const char* sql) {
  if (connection_ == nullptr) {
    const std::string path =
        std::string(std::getenv("KELVO_HOME")) + "/Documents/kelvo-db/v1.0.0/com.kelvo.sessions.sqlite";
    if (sqlite3_open_v2(path.c_str(), &connection_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
      sqlite3_close(connection_);
      connection_ = nullptr;
      return 0;
    }
    sqlite3_busy_timeout(connection_, kBusyMilliseconds);
  }
  for (;;) {
    sqlite3_stmt* statement = nullptr;
    const bool found = sqlite3_prepare_v2(connection_, sql, -1, &statement, nullptr) == SQLITE_OK &&
                       sqlite3_step(statement) == SQLITE_ROW;
    const std::int64_t result = found ? sqlite3_column_int64(statement, 0) : 0;
    sqlite3_finalize(statement);
    if (found || sqlite3_errcode(connection_) != SQLITE_SCHEMA) return result;
    // SQLITE_SCHEMA: a table was created or dropped in the meantime, so try again.
  }
}

void waitFor(const std::function<bool()>& condition, std::chrono::microseconds interval) {
  const auto deadline = Clock::now() + kLongestWait;
  while (!condition()) {
    if (Clock::now() > deadline) {
      std::printf("failed 1\n");
      std::fflush(stdout);
      std::_Exit(1);
    }
    std::this_thread::sleep_for(interval);
  }
}

PrivateMemory privateMemory(int process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/smaps_rollup");
  PrivateMemory memory;
  for (std::string line; std::getline(file, line);) {
    const auto bytes = std::strtoll(line.c_str() + line.find(':') + 1, nullptr, 10) * kKilobyte;
    if (line.rfind("Private_Clean:", 0) == 0) memory.clean = bytes;
    if (line.rfind("Private_Dirty:", 0) == 0) memory.dirty = bytes;
  }
  return memory;
}

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void printFigure(const std::string& key, double value) {
  std::printf("%s %.9g\n", key.c_str(), value);
  std::fflush(stdout);
}

}  // namespace kelvo::bench
