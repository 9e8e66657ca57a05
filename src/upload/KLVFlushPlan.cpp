#include "upload/KLVFlushPlan.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <unordered_set>

namespace kelvo {
namespace {

/// Returns each session's row with the greatest end, the first one of equals. Keeps the order of the sessions' first
/// rows.
std::vector<const KLVChunkRow*> lastRows(const std::vector<KLVChunkRow>& rows) {
  std::vector<const KLVChunkRow*> last;
  std::map<std::string_view, std::size_t> places;
  for (const KLVChunkRow& row : rows) {
    const auto [place, isNew] = places.try_emplace(row.sid, last.size());
    if (isNew) {
      last.push_back(&row);
    } else if (row.end > last[place->second]->end) {
      last[place->second] = &row;
    }
  }
  return last;
}

}  // namespace

std::optional<std::vector<KLVChunkCut>> cutsOfEarlierSessions(const std::vector<KLVChunkRow>& rows,
                                                              const std::vector<std::string>& sessions,
                                                              const std::string& current) {
  const auto last = lastRows(rows);
  const auto others = static_cast<std::size_t>(
      std::count_if(sessions.begin(), sessions.end(), [&](const auto& s) { return s != current; }));
  if (others == 0) return std::nullopt;

  std::vector<KLVChunkCut> cuts;
  if (others == last.size()) {
    for (const KLVChunkRow* row : last) cuts.push_back({row->sid, row->cid + 1, row->end + 1, true});
  } else if (others > last.size()) {
    std::unordered_set<std::string_view> withRow;
    for (const KLVChunkRow* row : last) withRow.insert(row->sid);
    for (const std::string& sid : sessions) {
      if (withRow.count(sid) == 0) cuts.push_back({sid});
    }
  }
  return cuts;
}

std::vector<std::string> deliveredSessions(const std::vector<KLVChunkRow>& rows) {
  std::vector<std::string> sessions;
  std::map<std::string_view, bool> delivered;
  for (const KLVChunkRow& row : rows) {
    const auto [place, isNew] = delivered.try_emplace(row.sid, row.sent);
    if (isNew) sessions.push_back(row.sid);
    if (!row.sent) place->second = false;
  }
  sessions.erase(std::remove_if(sessions.begin(), sessions.end(), [&](const auto& sid) { return !delivered[sid]; }),
                 sessions.end());
  return sessions;
}

}  // namespace kelvo
