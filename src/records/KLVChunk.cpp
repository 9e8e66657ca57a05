#include "records/KLVChunk.h"

namespace kelvo {

KLVChunk::KLVChunk(std::uint64_t cid, const std::string& sid) : KLVInfo(CMID(sid, cid)) {
  setInfo(cid, "number");
  setInfo(Array(), "reporting_times");
}

std::string KLVChunk::CMID(const std::string& sid, std::uint64_t cid) {
  return sid + "_" + std::to_string(cid);
}

KLVChunkMetaInfo::KLVChunkMetaInfo(const std::string& sid, std::uint64_t cid, std::uint64_t start, std::uint64_t end,
                                   Array reportingTimes)
    : KLVInfo(KLVChunk::CMID(sid, cid)) {
  setInfo(sid, "sid");
  setInfo(cid, "cid");
  setInfo(start, "start");
  setInfo(end, "end");
  setInfo(std::move(reportingTimes), "reporting_times");
  setInfo(false, "status");
}

}  // namespace kelvo
