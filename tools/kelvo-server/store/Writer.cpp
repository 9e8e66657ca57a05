#include "kelvo-server/store/Writer.h"

#include <set>
#include <utility>

#include "kelvo-server/db/Pool.h"
#include "kelvo-server/loop/Loop.h"
#include "kelvo-server/loop/Random.h"
#include "kelvo-server/store/Columns.h"
#include "kelvo-server/store/Statements.h"

namespace kelvo::server {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLongestGathering{5};
constexpr std::chrono::seconds kLongestWaiting{10};
constexpr std::size_t kMostRows = 500;
constexpr std::size_t kMostBytes = 1U << 20U;
constexpr int kTries = 5;

std::size_t rowsOf(const Entry& entry) {
  return entry.chunk ? 1 + entry.chunk->events.size() + entry.chunk->aggregates.size() : 1;
}

/// Decides about an erasure by the row of kLockDevice.
service::Erasure judge(const db::Rows& row, const std::string& secret) {
  using service::Erasure;
  if (row.text(0, 1) != "t") return Erasure::unknownDevice;
  if (row.isNull(0, 0)) return Erasure::noSecret;
  return row.text(0, 0) == sha256(secret) ? Erasure::done : Erasure::wrongSecret;
}

std::size_t bytesOf(const Entry& entry) {
  return entry.chunk ? entry.chunk->body.size() : entry.report->userAttributes.size();
}

}  // namespace

Writer::Writer(Loop& loop, db::Pool& pool,
               std::function<void(std::chrono::microseconds, const std::vector<Entry>&)> committed)
    : loop_(loop), pool_(pool), committed_(std::move(committed)) {}

void Writer::add(Entry entry) {
  const std::size_t rows = rowsOf(entry);
  const std::size_t bytes = bytesOf(entry);
  waitingRows_ += rows;
  waitingBytes_ += bytes;
  waiting_.push_back({std::move(entry), rows, bytes, Clock::now()});
  if (waitingRows_ >= kMostRows || waitingBytes_ >= kMostBytes) return begin();
  if (std::exchange(isTimed_, true)) return;
  loop_.after(kLongestGathering, [this] {
    isTimed_ = false;
    begin();
  });
}

/// Asks for a connection, unless it has asked. The group is formed when the connection is there.
void Writer::begin() {
  if (waiting_.empty() || std::exchange(isAsking_, true)) return;
  pool_.take([this](db::Connection* connection) {
    isAsking_ = false;
    dropOld();
    if (connection != nullptr) {
      write(*connection);
      return begin();
    }
    waitingRows_ = waitingBytes_ = 0;
    auto refused = std::exchange(waiting_, {});
    for (Waiting& each : refused) each.entry.done(Verdict::Unavailable, each.entry, {});
  });
}

void Writer::dropOld() {
  const auto least = Clock::now() - kLongestWaiting;
  while (!waiting_.empty() && waiting_.front().since < least) {
    Waiting old = std::move(waiting_.front());
    waiting_.pop_front();
    waitingRows_ -= old.rows;
    waitingBytes_ -= old.bytes;
    old.entry.done(Verdict::Unavailable, old.entry, {});
  }
}

std::vector<Entry> Writer::nextGroup() {
  std::vector<Entry> group;
  std::set<ChunkKey> keys;
  std::deque<Waiting> later;
  std::size_t rows = 0;
  std::size_t bytes = 0;
  while (!waiting_.empty()) {
    Waiting& next = waiting_.front();
    if (!group.empty() && (rows + next.rows > kMostRows || bytes + next.bytes > kMostBytes)) break;
    const auto& chunk = next.entry.chunk;
    if (chunk && !keys.insert(keyOf(*chunk)).second) {
      later.push_back(std::move(next));  // a second sending of the same chunk
    } else {
      rows += next.rows;
      bytes += next.bytes;
      group.push_back(std::move(next.entry));
    }
    waiting_.pop_front();
  }
  waitingRows_ -= rows;
  waitingBytes_ -= bytes;
  waiting_.insert(waiting_.begin(), std::move_iterator(later.begin()), std::move_iterator(later.end()));
  return group;
}

Detached Writer::write(db::Connection& connection) {
  std::vector<Entry> group = nextGroup();
  if (!group.empty()) co_await commit(std::move(group), connection);
  pool_.give(&connection);
  // A second sending of a chunk in the group had to wait for it.
  begin();
}

/// Commits the group, else each entry alone. Returns false if the connection is lost.
Task<bool> Writer::commit(std::vector<Entry> group, db::Connection& connection) {
  const auto started = Clock::now();
  const GroupResult result = co_await commitWithRetries(group, connection);
  if (!result.failure) {
    committed_(std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started), group);
  }
  const bool isFault = result.failure && (result.failure->isAboutData() || result.failure->isTransient());
  if (isFault && group.size() > 1) {
    for (Entry& entry : group) {
      std::vector<Entry> alone;
      alone.push_back(std::move(entry));
      co_await commit(std::move(alone), connection);
    }
    co_return true;
  }
  const bool isRefused = result.failure && result.failure->isAboutData();
  for (std::size_t i = 0; i < group.size(); ++i) {
    group[i].done(isRefused ? Verdict::Refused : result.verdicts[i], group[i],
                  result.failure ? result.failure->message : "");
  }
  co_return !result.failure || !result.failure->isLoss();
}

Task<GroupResult> Writer::commitWithRetries(const std::vector<Entry>& group, db::Connection& connection) {
  for (int tries = 1;; ++tries) {
    GroupResult result = co_await commitGroup(group, connection);
    if (!result.failure || !result.failure->isTransient() || tries == kTries) co_return std::move(result);
    Callback<bool> pause([this, tries](Callback<bool>::Done done) {
      loop_.after(std::chrono::milliseconds(randomBetween(0, tries * 10)), [done = std::move(done)] { done(true); });
    });
    co_await pause;
  }
}

void Writer::erase(service::Device device, std::string secret, Erased done) {
  pool_.take([this, device = std::move(device), secret = std::move(secret),
              done = std::move(done)](db::Connection* connection) { eraseOn(connection, device, secret, done); });
}

Detached Writer::eraseOn(db::Connection* connection, service::Device device, std::string secret, Erased done) {
  if (connection == nullptr) {
    done(std::nullopt);
    co_return;
  }
  const std::vector<db::Parameter> key{device.application, device.id};
  std::optional<service::Erasure> outcome;
  for (int tries = 1; tries <= kTries && !outcome && connection->isReady(); ++tries) {
    std::vector<db::Query> lock{{kBegin}, {kLockDevice, key}};
    const db::Outcome locked = co_await runQueries(*connection, std::move(lock));
    if (!locked.failure) outcome = judge(locked.rows[1], secret);
    std::vector<db::Query> end{{kRollback}};
    if (outcome == service::Erasure::done) end = {{kErase, key}, {kCommit}};
    const db::Outcome ended = co_await runQueries(*connection, std::move(end));
    if (!ended.failure) continue;
    outcome = std::nullopt;
    std::vector<db::Query> rollback{{kRollback}};
    co_await runQueries(*connection, std::move(rollback));
  }
  pool_.give(connection);
  done(outcome);
}

void Writer::keepUnreadable(std::string app, std::string device, std::string body, std::string reason,
                            std::function<void(bool)> done) {
  db::Query query{kKeepUnreadable,
                  {db::parameter(app), db::parameter(sha256(body)), db::parameter(reason),
                   device.empty() ? std::nullopt : db::parameter(device), db::parameter(body)}};
  pool_.take([this, query = std::move(query), done = std::move(done)](db::Connection* connection) {
    if (connection == nullptr) return done(false);
    connection->run({query}, [this, connection, done](const db::Outcome& outcome) {
      pool_.give(connection);
      done(!outcome.failure);
    });
  });
}

void Writer::maintain(int keepDays) {
  auto queries = std::make_shared<std::deque<db::Query>>();
  for (const std::size_t statement : {kAddPartitions, kCountDays}) queries->push_back(db::Query{statement});
  if (keepDays > 0) {
    for (const std::size_t statement : {kDropPartitions, kDeleteBefore}) {
      db::Query query{statement};
      query.parameters.push_back(db::parameter(std::to_string(keepDays)));
      queries->push_back(std::move(query));
    }
  }
  pool_.take([this, queries](db::Connection* connection) {
    if (connection != nullptr) runInOrder(connection, queries);  // else the next call makes up for it
  });
}

/// Each query is a transaction of its own. A failure ends the work: days that are not counted must not be dropped.
void Writer::runInOrder(db::Connection* connection, const std::shared_ptr<std::deque<db::Query>>& queries) {
  if (queries->empty()) return pool_.give(connection);
  db::Query query = std::move(queries->front());
  queries->pop_front();
  connection->run({std::move(query)}, [this, connection, queries](const db::Outcome& outcome) {
    if (outcome.failure) queries->clear();
    runInOrder(connection, queries);
  });
}

}  // namespace kelvo::server
