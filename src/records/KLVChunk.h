#pragma once

#include <cstdint>
#include <string>

#include "records/KLVInfo.h"

namespace kelvo {

/// "chunk_meta" of an upload: the chunk's id "<session id>_<number>", its number and its reporting times.
class KLVChunk final : public KLVInfo {
 public:
  using KLVInfo::KLVInfo;
  /// Chunk number `cid` of session `sid`, with an empty list of reporting times.
  KLVChunk(std::uint64_t cid, const std::string& sid);
  [[nodiscard]] std::string_view className() const override { return "KLVChunk"; }
  [[nodiscard]] bool isStorable() const override { return false; }

  /// Returns the id of chunk number `cid` of session `sid`.
  static std::string CMID(const std::string& sid, std::uint64_t cid);

  void setChunkAttribute(Value value, std::string_view key) { chunkAttributes_.set(key, std::move(value)); }
  [[nodiscard]] const Dictionary& chunkAttributes() const noexcept { return chunkAttributes_; }

 private:
  Dictionary chunkAttributes_;  // not guarded: one thread at a time uses a chunk
};

/// A chunk's row in the database: its session, number, range of events (first and last, both included), reporting
/// times in milliseconds since 1970, and whether the service accepted it.
class KLVChunkMetaInfo final : public KLVInfo {
 public:
  using KLVInfo::KLVInfo;
  KLVChunkMetaInfo(const std::string& sid, std::uint64_t cid, std::uint64_t start, std::uint64_t end,
                   Array reportingTimes);
  [[nodiscard]] std::string_view className() const override { return "KLVChunkMetaInfo"; }
};

}  // namespace kelvo
