#pragma once

#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace kelvo::bench {

using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Watches the database of this process's home through a separate connection.
class DatabaseWatcher {
 public:
  ~DatabaseWatcher() { sqlite3_close(connection_); }

  /// Returns the number of events ever stored, of all sessions.
  std::int64_t stored() { return number("select coalesce(sum(seq), 0) from sqlite_sequence"); }
  std::int64_t acceptedChunks() { return number("select count(*) from chunkmeta where status = 1"); }
  std::int64_t acceptedEvents() {
    return number("select coalesce(sum(\"end\" - \"start\" + 1), 0) from chunkmeta where status = 1");
  }
  std::int64_t chunks() { return number("select count(*) from chunkmeta"); }
  std::int64_t sessions() { return number("select count(*) from sqlite_master where name like 'events_%'"); }

 private:
  /// Returns the integer that `sql` selects, 0 if there is no database or no row.
  std::int64_t number(const char* sql);

  sqlite3* connection_ = nullptr;
};

/// Blocks until `condition` holds; checks it every `interval`. Ends the process after ten minutes.
void waitFor(const std::function<bool()>& condition,
             std::chrono::microseconds interval = std::chrono::microseconds(200));

/// The memory, in bytes, that a process shares with no other. The clean part is mapped from files: mostly code of
/// libraries that no other process uses at the moment.
struct PrivateMemory {
  std::int64_t clean = 0;
  std::int64_t dirty = 0;
};
/// Returns zeros if the process has ended.
PrivateMemory privateMemory(int process);

/// Returns the user and system time of this process, in seconds.
double cpuSeconds();

/// Prints "key value" for the program that started this process.
void printFigure(const std::string& key, double value);

}  // namespace kelvo::bench
