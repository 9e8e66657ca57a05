#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelvo {

/// A chunk that the database knows.
struct KLVChunkRow {
  std::string id;   ///< "<session id>_<number>"
  std::string sid;  ///< session id
  std::uint64_t cid = 0;
  std::uint64_t start = 0;  ///< first event
  std::uint64_t end = 0;    ///< last event, included
  bool sent = false;
};

/// A chunk to be cut from a session: number `cid`, from event `start` to the newest.
struct KLVChunkCut {
  std::string sid;
  std::uint64_t cid = 0;
  std::uint64_t start = 0;

  friend bool operator==(const KLVChunkCut&, const KLVChunkCut&) = default;
};

/// What earlier sessions still have to be cut, from all chunk rows and the ids of all stored sessions; nullopt when no
/// session but `current` is stored, and so nothing is to be cut, sent again or purged.
///
/// Kept: which sessions are looked at depends on two counts only. With more other sessions than sessions with rows,
/// those without a row are cut from their first event (the current one, too); with as many, each session with rows is
/// cut behind its last chunk; with fewer, none is.
std::optional<std::vector<KLVChunkCut>> cutsOfEarlierSessions(const std::vector<KLVChunkRow>& rows,
                                                              const std::vector<std::string>& sessions,
                                                              const std::string& current);

/// Sessions whose chunks, at least one, were all accepted, in the order of their first row.
std::vector<std::string> deliveredSessions(const std::vector<KLVChunkRow>& rows);

}  // namespace kelvo
