#include "records/KLVChunk.h"

#include "records/KLVRecordKeys.h"

namespace kelvo {

KLVChunk::KLVChunk(std::uint64_t cid, const std::string& sid) : KLVInfo(CMID(sid, cid)) {
  setInfo(cid, kKLVChunkNumber);
  setInfo(Array(), kKLVChunkReportingTimes);
}

std::string KLVChunk::CMID(const std::string& sid, std::uint64_t cid) {
  return sid + "_" + std::to_string(cid);
}

KLVChunkMetaInfo::KLVChunkMetaInfo(const std::string& sid, std::uint64_t cid, std::uint64_t start, std::uint64_t end,
                                   Array reportingTimes)
    : KLVInfo(KLVChunk::CMID(sid, cid)) {
  setInfo(sid, kKLVChunkSid);
  setInfo(cid, kKLVChunkCid);
  setInfo(start, kKLVChunkStart);
  setInfo(end, kKLVChunkEnd);
  setInfo(std::move(reportingTimes), kKLVChunkReportingTimes);
  setInfo(false, kKLVChunkStatus);
}

}  // namespace kelvo
