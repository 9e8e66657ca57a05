#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kelvo-server/db/Query.h"

namespace kelvo::server {
class Loop;
}

namespace kelvo::server::db {

/// The longest time that a batch may take. Beyond it, the connection counts as lost.
inline constexpr std::chrono::seconds kLongestBatch{30};

/// One connection to PostgreSQL, in pipeline mode, on a loop. Never blocks: a thread of its own connects.
///
/// States: closed, connecting, ready, closed. It does not open itself again. Thread: the loop's.
class Connection {
 public:
  using Done = std::function<void(Outcome)>;

  /// Keeps a reference to `statements`, which it prepares once it is connected.
  Connection(Loop& loop, std::string database, std::span<const char* const> statements);
  /// Closes without calling anything.
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Connects and prepares the statements. Calls `done` once, with a failure if that did not succeed; later calls
  /// `lost` once, when the connection breaks. Call it once.
  void open(std::function<void(std::optional<Failure>)> done, std::function<void()> lost);
  /// Calls `notified` for each notification, after a `LISTEN`.
  void setNotified(std::function<void()> notified);

  [[nodiscard]] bool isReady() const noexcept;
  /// Sends all `queries` at once and calls `done` once, with the rows of each, or with the first failure; the queries
  /// behind a failed one are not run. One batch at a time. A batch that begins a transaction may leave it open.
  void run(std::vector<Query> queries, Done done);

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace kelvo::server::db
