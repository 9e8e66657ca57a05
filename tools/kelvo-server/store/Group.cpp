#include "kelvo-server/store/Group.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "kelvo-server/store/Columns.h"
#include "kelvo-server/store/Statements.h"

namespace kelvo::server {
namespace {

using Queries = std::vector<db::Query>;

/// One transaction for a group. Used once.
class GroupCommit {
 public:
  GroupCommit(const std::vector<Entry>& entries, db::Connection& connection)
      : entries_(entries), connection_(connection), verdicts_(entries.size(), Verdict::Stored) {}

  Task<GroupResult> run() {
    std::optional<db::Failure> failure = co_await insertIds();
    if (!failure && hasKnownIds()) failure = co_await compareKnown();
    if (!failure) failure = co_await insertContent();
    if (failure && !failure->isLoss()) {
      Queries rollback{{kRollback}};
      co_await runQueries(connection_, std::move(rollback));
    }
    if (failure) verdicts_.assign(entries_.size(), Verdict::Unavailable);
    GroupResult result{std::move(verdicts_), std::move(failure)};
    co_return result;
  }

 private:
  using Step = Task<std::optional<db::Failure>>;

  /// Locks the devices, and inserts the ids of chunks whose device is not erased.
  Step insertIds() {
    std::vector<const DeviceRow*> reports;
    Chunks all;
    for (const Entry& entry : entries_) {
      reports.push_back(&entry.device());
      if (entry.chunk) all.push_back(&*entry.chunk);
    }
    devices_ = foldDevices(reports);
    Queries queries{{kBegin}, reportDevices(devices_), withDevices(kFindErased, devices_), server::insertIds(all)};
    db::Outcome outcome = co_await runQueries(connection_, std::move(queries));
    if (outcome.failure) co_return std::move(outcome.failure);
    readErased(outcome.rows[2]);
    readInserted(outcome.rows[3]);
    co_return std::nullopt;
  }

  void readErased(const db::Rows& rows) {
    std::set<std::pair<std::string, std::string>> erased;
    for (std::size_t i = 0; i < rows.size(); ++i) erased.emplace(rows.text(i, 0), rows.text(i, 1));
    std::erase_if(devices_, [&](const DeviceRow& device) { return !erased.contains({device.app, device.device}); });
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      const DeviceRow& device = entries_[i].device();
      if (erased.contains({device.app, device.device})) verdicts_[i] = Verdict::Erased;
    }
  }

  void readInserted(const db::Rows& rows) {
    std::set<ChunkKey> inserted;
    for (std::size_t i = 0; i < rows.size(); ++i) {
      inserted.emplace(rows.text(i, 0), rows.text(i, 1), std::stoi(rows.text(i, 2)));
    }
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      const auto& chunk = entries_[i].chunk;
      if (chunk && verdicts_[i] == Verdict::Stored && !inserted.contains(keyOf(*chunk)))
        verdicts_[i] = Verdict::Duplicate;
    }
  }

  [[nodiscard]] bool hasKnownIds() const {
    return std::find(verdicts_.begin(), verdicts_.end(), Verdict::Duplicate) != verdicts_.end();
  }

  /// Tells duplicates and conflicts apart.
  Step compareKnown() {
    Queries queries{withKeys(kFindIds, with(Verdict::Duplicate))};
    db::Outcome outcome = co_await runQueries(connection_, std::move(queries));
    if (outcome.failure) co_return std::move(outcome.failure);
    const db::Rows& rows = outcome.rows[0];
    std::map<ChunkKey, std::string> fingerprints;
    for (std::size_t i = 0; i < rows.size(); ++i) {
      fingerprints[{rows.text(i, 0), rows.text(i, 1), std::stoi(rows.text(i, 2))}] = rows.text(i, 3);
    }
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      const auto& chunk = entries_[i].chunk;
      if (verdicts_[i] != Verdict::Duplicate) continue;
      if (fingerprints[keyOf(*chunk)] != chunk->fingerprint) verdicts_[i] = Verdict::Conflict;
    }
    co_return std::nullopt;
  }

  /// Inserts what the verdicts allow, and commits.
  Step insertContent() {
    const Chunks added = with(Verdict::Stored);
    const Chunks duplicates = with(Verdict::Duplicate);
    const Chunks conflicts = with(Verdict::Conflict);
    Chunks counted = added;
    counted.insert(counted.end(), duplicates.begin(), duplicates.end());
    Queries queries;
    if (!added.empty()) {
      queries.push_back(insertEvents(added));
      queries.push_back(addToSessions(added));
    }
    db::Query aggregates = raiseAggregates(counted);
    if (aggregates.statement != kNumberOfStatements) queries.push_back(std::move(aggregates));
    if (!duplicates.empty()) queries.push_back(withKeys(kCountDuplicates, duplicates));
    if (!conflicts.empty()) queries.push_back(keepConflicts(conflicts));
    if (!devices_.empty()) queries.push_back(withDevices(kForgetDevices, devices_));
    queries.push_back({kCommit});
    db::Outcome outcome = co_await runQueries(connection_, std::move(queries));
    co_return std::move(outcome.failure);
  }

  /// Returns the chunks with this verdict, in the order of their keys.
  [[nodiscard]] Chunks with(Verdict verdict) const {
    Chunks found;
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      if (entries_[i].chunk && verdicts_[i] == verdict) found.push_back(&*entries_[i].chunk);
    }
    std::sort(found.begin(), found.end(), [](const Chunk* a, const Chunk* b) { return keyOf(*a) < keyOf(*b); });
    return found;
  }

  const std::vector<Entry>& entries_;
  db::Connection& connection_;
  std::vector<Verdict> verdicts_;
  std::vector<DeviceRow> devices_;  // after `insertIds`: those that are erased
};

}  // namespace

Task<GroupResult> commitGroup(const std::vector<Entry>& entries, db::Connection& connection) {
  GroupCommit commit(entries, connection);
  co_return co_await commit.run();
}

Callback<db::Outcome> runQueries(db::Connection& connection, std::vector<db::Query> queries) {
  return Callback<db::Outcome>([&connection, queries = std::move(queries)](Callback<db::Outcome>::Done done) mutable {
    connection.run(std::move(queries), std::move(done));
  });
}

}  // namespace kelvo::server
