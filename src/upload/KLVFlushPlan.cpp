#include "upload/KLVFlushPlan.h"

#include <algorithm>
#include <map>
#include <utility>

namespace kelvo {

std::uint64_t KLVEarlierSession::nextChunk() const {
  std::uint64_t next = kFirstChunk;
  for (const KLVChunkRow& row : rows) next = std::max(next, row.cid + 1);
  return next;
}

std::uint64_t KLVEarlierSession::nextEvent() const {
  std::uint64_t next = kFirstEvent;
  for (const KLVChunkRow& row : rows) next = std::max(next, row.end + 1);
  return next;
}

bool KLVEarlierSession::isAccepted() const {
  return !rows.empty() && std::all_of(rows.begin(), rows.end(), [](const auto& row) { return row.sent; });
}

std::vector<KLVEarlierSession> earlierSessions(const KLVStoredSessions& stored, const std::set<std::string>& running) {
  std::map<std::string, KLVEarlierSession> sessions;
  for (const KLVChunkRow& row : stored.rows) sessions[row.sid].rows.push_back(row);
  for (const std::string& sid : stored.withTable) sessions[sid].hasTable = true;
  for (const auto* others : {&stored.withAggregates, &stored.withDirectory}) {
    for (const std::string& sid : *others) sessions[sid];
  }
  std::vector<KLVEarlierSession> earlier;
  for (auto& [sid, session] : sessions) {
    if (running.count(sid) != 0) continue;
    session.sid = sid;
    earlier.push_back(std::move(session));
  }
  return earlier;
}

std::optional<std::set<std::string>> sessionsToCutByCounts(const std::vector<KLVEarlierSession>& earlier) {
  const auto count = [&](auto condition) { return std::count_if(earlier.begin(), earlier.end(), condition); };
  const auto withTable = count([](const auto& session) { return session.hasTable; });
  const auto withRows = count([](const auto& session) { return !session.rows.empty(); });
  if (withTable == 0) return std::nullopt;

  std::set<std::string> cut;
  for (const KLVEarlierSession& session : earlier) {
    const bool isNew = session.rows.empty();
    if (withTable > withRows ? session.hasTable && isNew : withTable == withRows && !isNew) cut.insert(session.sid);
  }
  return cut;
}

}  // namespace kelvo
