#include <algorithm>

#include "records/KLVChunk.h"
#include "upload/KLVChunkManager.h"
#include "upload/KLVStoredEvents.h"
#include "util/KLVDeliveryRules.h"

namespace kelvo {
void KLVChunkManager::flush() {
  auto stored = readEarlierSessions();
  hasNotFlushed_ = !stored;
  if (!stored) return;  // without its rows, a session would be cut anew from its first chunk
  std::vector<KLVEarlierSession> earlier;
  for (KLVEarlierSession& session : *stored) {
    if (isEmpty(session)) {
      purge(session.sid);
    } else {
      earlier.push_back(std::move(session));
    }
  }
  if (KLVDeliveryRules::current().cutsEveryEarlierSession) {
    flushEverySession(earlier);
  } else {
    flushByCounts(earlier);
  }
}

void KLVChunkManager::flushAgainIfDue() {
  if (hasNotFlushed_ || !unsettled_.empty()) flush();
}

std::optional<std::vector<KLVEarlierSession>> KLVChunkManager::readEarlierSessions() {
  KLVStoredSessions stored;
  auto rows = storedChunks(delegate_);
  if (!rows) return std::nullopt;
  stored.rows = *std::move(rows);
  stored.withTable = delegate_.getSessions();
  stored.withAggregates = delegate_.getSessionsWithAggregates();
  stored.withDirectory = delegate_.getSessionDirectories();
  std::set<std::string> running{currentSessionIdentifier_};
  // Asked last: a session that has just been restarted is the controller's before anything of it is stored.
  if (const auto session = delegate_.session()) running.insert(session->identifier());
  return earlierSessions(stored, running);
}

/// A failed read is never taken for an empty session.
bool KLVChunkManager::isEmpty(const KLVEarlierSession& session) {
  if (!session.rows.empty() || hasEventsFrom(delegate_, session.sid, kFirstEvent) != false) return false;
  if (!KLVDeliveryRules::current().sendsAggregateTails) return true;
  const auto totals = delegate_.aggregateTotals(session.sid);
  return totals && totals->counted == 0;
}

void KLVChunkManager::flushByCounts(const std::vector<KLVEarlierSession>& earlier) {
  const auto selected = sessionsToCutByCounts(earlier);
  if (!selected) return;
  for (const KLVEarlierSession& session : earlier) {
    Progress progress{session.nextChunk(), session.nextEvent()};
    if (selected->count(session.sid) != 0) static_cast<void>(cutToEnd(session.sid, progress));
  }
  for (const KLVEarlierSession& session : earlier) {
    // The rows are those before the cuts: a tail that was just posted still follows them.
    purgeIfSettled(session);
  }
  for (const KLVEarlierSession& session : earlier) {
    for (const KLVChunkRow& row : session.rows) {
      if (!row.sent) sender_.resend(row);
    }
  }
}

void KLVChunkManager::purgeIfSettled(const KLVEarlierSession& session) {
  if (session.isAccepted() && hasEventsFrom(delegate_, session.sid, session.nextEvent()) == false) purge(session.sid);
}

void KLVChunkManager::flushEverySession(const std::vector<KLVEarlierSession>& earlier) {
  unsettled_.clear();
  for (const KLVEarlierSession& session : earlier) {
    Progress& progress = ended_[session.sid];
    progress.nextChunk = std::max(progress.nextChunk, session.nextChunk());
    progress.nextEvent = std::max(progress.nextEvent, session.nextEvent());
    for (const KLVChunkRow& row : session.rows) {
      if (!row.sent && sender_.resend(row)) progress.unaccepted += 1;
    }
  }
  for (const KLVEarlierSession& session : earlier) settle(session.sid);
}

void KLVChunkManager::settle(const std::string& sid) {
  Progress& progress = ended_[sid];
  const Cut cut = cutToEnd(sid, progress);
  if (cut == Cut::failed) unsettled_.insert(sid);
  if (cut != Cut::nothing || progress.unaccepted > 0) return;
  unsettled_.insert(sid);  // until the purge is committed
  purge(sid);
}

void KLVChunkManager::onSettled(const KLVChunkRow& chunk) {
  if (chunk.sid == currentSessionIdentifier_) {
    current_.unaccepted -= 1;
    return;
  }
  const auto ended = ended_.find(chunk.sid);
  if (ended == ended_.end()) return;
  ended->second.unaccepted -= 1;
  if (ended->second.unaccepted == 0) settle(chunk.sid);
}

void KLVChunkManager::purge(const std::string& sid) {
  const auto deleteRows = [&] {
    delegate_.deleteSession(sid);
    delegate_.deleteChunkMetaInfo(std::make_shared<KLVChunk>(sid));
    delegate_.deleteAggregateEventsWithSessionId(sid);
  };
  // The files go last: a kill leaves files without rows, which the next flush deletes, and never rows without files.
  delegate_.writeTogether(deleteRows, [weak = weak_from_this(), sid] {
    const auto self = weak.lock();
    if (self == nullptr) return;
    self->delegate_.deleteItemAtPath(sid);
    self->queue_.async([self, sid] {
      self->queue_.assertCurrent();
      self->ended_.erase(sid);
      self->unsettled_.erase(sid);
    });
  });
}

}  // namespace kelvo
