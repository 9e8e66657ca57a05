#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kelvo {

// The decisions of a flush, as pure functions: which sessions are earlier ones, and which of them are cut.

/// The numbers of a session's first chunk and first event.
inline constexpr std::uint64_t kFirstChunk = 1;
inline constexpr std::uint64_t kFirstEvent = 1;

/// A chunk that was cut: its row in the database.
struct KLVChunkRow {
  std::string sid;  ///< session id
  std::uint64_t cid = kFirstChunk;
  std::uint64_t start = kFirstEvent;  ///< first event
  std::uint64_t end = 0;              ///< last event, included; `start` - 1 for a chunk without events
  bool sent = false;                  ///< the service has accepted it
};

/// Everything that may be stored of sessions.
struct KLVStoredSessions {
  std::vector<KLVChunkRow> rows;
  std::vector<std::string> withTable;
  std::vector<std::string> withAggregates;
  std::vector<std::string> withDirectory;
};

/// The stored data of a session that has ended, in this process or an earlier one.
struct KLVEarlierSession {
  std::string sid;
  bool hasTable = false;
  std::vector<KLVChunkRow> rows;

  /// Returns the number of the next chunk: it follows the greatest number in use.
  [[nodiscard]] std::uint64_t nextChunk() const;
  /// Returns the first event after the chunks.
  [[nodiscard]] std::uint64_t nextEvent() const;
  /// Returns true if there is a row, and the service has accepted every row.
  [[nodiscard]] bool isAccepted() const;
};

/// Returns all stored sessions but the `running` ones, in the order of their ids, which begin with their launch times.
std::vector<KLVEarlierSession> earlierSessions(const KLVStoredSessions& stored, const std::set<std::string>& running);

/// Returns the ids of the sessions to cut where two counts decide. Returns nullopt if no session has a table: then
/// nothing must be cut, resent or purged.
///
/// Kept: the counts are those of the sessions with a table and of the sessions with rows. If there are more of the
/// former, every session without a row is cut. If there are as many, every session with rows is cut after its last
/// chunk. If there are fewer, none is cut. A session that is left out waits for a later flush.
std::optional<std::set<std::string>> sessionsToCutByCounts(const std::vector<KLVEarlierSession>& earlier);

}  // namespace kelvo
