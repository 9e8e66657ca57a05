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

/// Watches the database of this process's home through a connection of its own.
class Watcher {
 public:
  ~Watcher() { sqlite3_close(connection_); }

  /// Events of all sessions that were ever stored.
  std::int64_t stored() { return number("select coalesce(sum(seq), 0) from sqlite_sequence"); }
  std::int64_t acceptedChunks() { return number("select count(*) from chunkmeta where status = 1"); }
  std::int64_t acceptedEvents() {
    return number("select coalesce(sum(\"end\" - \"start\" + 1), 0) from chunkmeta where status = 1");
  }
  std::int64_t chunks() { return number("select count(*) from chunkmeta"); }
  std::int64_t sessions() { return number("select count(*) from sqlite_master where name like 'events_%'"); }

 private:
  std::int64_t number(const char* sql);

  sqlite3* connection_ = nullptr;
};

/// Asks every `interval`; ends the process when it takes more than ten minutes.
void waitFor(const std::function<bool()>& condition,
             std::chrono::microseconds interval = std::chrono::microseconds(200));

/// Memory that a process shares with no other, in bytes; all zero when it is gone. The clean part is of files, mostly
/// code of libraries that no other process happens to use.
struct PrivateMemory {
  std::int64_t clean = 0;
  std::int64_t dirty = 0;
};
PrivateMemory privateMemory(int process);

/// User and system time of this process.
double cpuSeconds();

/// Prints "key value" for the program that started this one.
void tell(const std::string& key, double value);

}  // namespace kelvo::bench
