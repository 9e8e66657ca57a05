#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelvo-server/store/Group.h"
#include "kelvo-service/Service.h"

namespace kelvo::server {

class Loop;
namespace db {
class Pool;
}

/// Stores chunks and reports of devices. Those that wait share a transaction: it begins after 5 ms at most, or when
/// 500 rows or 1 MiB wait. A larger chunk has a transaction of its own. Thread: the loop's.
class Writer {
 public:
  /// `committed` receives the time that each group took, and the number of its entries.
  Writer(Loop& loop, db::Pool& pool,
         std::function<void(std::chrono::microseconds, const std::vector<Entry>&)> committed);

  /// Stores the entry. Calls its `done` with `Unavailable` if the database is away, or if the entry waited for 10 s.
  void add(Entry entry);
  /// Gives up the entries that have waited for 10 s. Call it often: the database may hang.
  void dropOld();

  using Erased = std::function<void(std::optional<service::Erasure>)>;
  /// Erases a device that knows its secret. Calls `done` with nullopt if the database did not answer.
  void erase(service::Device device, std::string secret, Erased done);
  /// Keeps a body that is no chunk. Calls `done` with false if that did not succeed. `device` may be empty.
  void keepUnreadable(std::string app, std::string device, std::string body, std::string reason,
                      std::function<void(bool)> done);
  /// Adds partitions for the next days, and counts the days that are over. Deletes what arrived more than `keepDays`
  /// days ago, nothing if it is 0.
  void maintain(int keepDays);

 private:
  struct Waiting {
    Entry entry;
    std::size_t rows;
    std::size_t bytes;
    std::chrono::steady_clock::time_point since;
  };
  void begin();
  [[nodiscard]] std::vector<Entry> nextGroup();
  Detached write(db::Connection& connection);
  Task<bool> commit(std::vector<Entry> group, db::Connection& connection);
  Task<GroupResult> commitWithRetries(const std::vector<Entry>& group, db::Connection& connection);
  void runInOrder(db::Connection* connection, const std::shared_ptr<std::deque<db::Query>>& queries);
  Detached eraseOn(db::Connection* connection, service::Device device, std::string secret, Erased done);

  Loop& loop_;
  db::Pool& pool_;
  const std::function<void(std::chrono::microseconds, const std::vector<Entry>&)> committed_;
  std::deque<Waiting> waiting_;
  std::size_t waitingRows_ = 0;
  std::size_t waitingBytes_ = 0;
  bool isTimed_ = false;   // the 5 ms run
  bool isAsking_ = false;  // for a connection
};

}  // namespace kelvo::server
