#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelvo {

// Two decisions of a flush, as pure functions: which earlier sessions are cut, and which are purged. Which chunks are
// resent is not decided here: `KLVChunkManager` resends every chunk that the service has not accepted.

/// The numbers of a session's first chunk and first event.
inline constexpr std::uint64_t kFirstChunk = 1;
inline constexpr std::uint64_t kFirstEvent = 1;

/// A chunk that was cut: its row in the database.
struct KLVChunkRow {
  std::string sid;  ///< session id
  std::uint64_t cid = kFirstChunk;
  std::uint64_t start = kFirstEvent;  ///< first event
  std::uint64_t end = 0;              ///< last event, included
  bool sent = false;                  ///< the service has accepted it
};

/// A chunk to cut from a session: number `cid`, from event `start` to the newest event.
struct KLVChunkCut {
  std::string sid;
  std::uint64_t cid = kFirstChunk;
  std::uint64_t start = kFirstEvent;
  bool hasEarlierChunk = false;  ///< the session has had a chunk, so it may have no event left to cut

  friend bool operator==(const KLVChunkCut&, const KLVChunkCut&) = default;
};

/// Returns the cuts of a flush, from all chunk rows and the ids of all stored sessions. Returns nullopt if no session
/// but `current` is stored: then nothing must be cut, resent or purged.
///
/// Kept: only two counts decide which sessions are cut. If more other sessions are stored than have rows, every session
/// without a row is cut from its first event, the current one included. If as many are stored, every session with rows
/// is cut after its last chunk. If fewer are stored, none is cut.
std::optional<std::vector<KLVChunkCut>> cutsOfEarlierSessions(const std::vector<KLVChunkRow>& rows,
                                                              const std::vector<std::string>& sessions,
                                                              const std::string& current);

/// Returns the sessions to purge: those with at least one row, and all rows sent. Keeps the order of their first rows.
std::vector<std::string> deliveredSessions(const std::vector<KLVChunkRow>& rows);

}  // namespace kelvo
