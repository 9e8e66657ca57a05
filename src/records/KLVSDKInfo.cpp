#include "records/KLVSDKInfo.h"

#include "records/KLVRecordKeys.h"
#include "util/KLVTimer.h"

namespace kelvo {
namespace {
/// Kept: reported to the service only. The library uses neither of the two intervals.
constexpr int kReportedInterval = 1;
}  // namespace

KLVSDKInfo::KLVSDKInfo(std::string identifier) : KLVInfo(std::move(identifier)) {
  setIdentifier(std::to_string(static_cast<std::int64_t>(kKLVSDKVersion)));
  setInfo(KLVTimer::sharedTimer().currentTimeInMillis(), kKLVSDKStartTime);
  setInfo("undefined", kKLVConfigId);
  setInfo(kReportedInterval, kKLVTickInterval);
  setInfo(kReportedInterval, kKLVChunkRetryWindow);
  setInfo(kKLVSDKVersion, kKLVSDKVersionKey);
}

}  // namespace kelvo
