#pragma once

#include <cstdint>
#include <string>

#include "records/KLVInfo.h"

namespace kelvo {

/// One upload of a session's events. Its id is "<session id>_<number>".
class KLVChunk final : public KLVInfo {
 public:
  using KLVInfo::KLVInfo;
  /// Chunk `cid` of session `sid`, without reporting times yet.
  KLVChunk(std::uint64_t cid, const std::string& sid);
  [[nodiscard]] std::string_view className() const override { return "KLVChunk"; }
  [[nodiscard]] bool isStorable() const override { return false; }

  static std::string CMID(const std::string& sid, std::uint64_t cid);

  void setChunkAttribute(Value value, std::string_view key) { chunkAttributes_.set(key, std::move(value)); }
  [[nodiscard]] const Dictionary& chunkAttributes() const noexcept { return chunkAttributes_; }

 private:
  Dictionary chunkAttributes_;
};

/// What the database keeps of a chunk: its session, number, range of events (first and last, both included),
/// reporting times, and whether the service accepted it.
class KLVChunkMetaInfo final : public KLVInfo {
 public:
  using KLVInfo::KLVInfo;
  KLVChunkMetaInfo(const std::string& sid, std::uint64_t cid, std::uint64_t start, std::uint64_t end,
                   Array reportingTimes);
  [[nodiscard]] std::string_view className() const override { return "KLVChunkMetaInfo"; }
};

}  // namespace kelvo
