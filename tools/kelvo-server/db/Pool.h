#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "kelvo-server/db/Connection.h"

namespace kelvo::server::db {

/// The connections of one loop. It opens lost ones again by itself, first at once, then with growing delays up to 5 s.
/// Thread: the loop's.
class Pool {
 public:
  /// `database` is a connection string or URI. `report` receives a line when the database goes away, and when it is
  /// back.
  Pool(Loop& loop, std::string database, std::span<const char* const> statements, std::size_t connections,
       std::function<void(const std::string&)> report);
  ~Pool();
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  /// Opens the connections. Call it once.
  void open();

  /// Calls `use` with a connection that nobody else uses, when there is one: at once, or after earlier callers gave
  /// theirs back. Calls it with nullptr if the database is away, or goes away meanwhile.
  void take(std::function<void(Connection*)> use);
  /// Returns a connection, lost or without an open transaction.
  void give(Connection* connection);

  /// Returns false while no connection is open.
  [[nodiscard]] bool isReady() const noexcept;

 private:
  struct Slot;
  void openSlot(Slot& slot);
  void openLater(Slot& slot);
  void serve();
  void refuseAllIfAway();

  Loop& loop_;
  const std::string database_;
  const std::span<const char* const> statements_;
  const std::function<void(const std::string&)> report_;
  std::vector<std::unique_ptr<Slot>> slots_;
  std::deque<std::function<void(Connection*)>> waiting_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  // timers hold it weakly
  bool isAway_ = false;                                         // as reported
};

}  // namespace kelvo::server::db
