#include "records/KLVSDKInfo.h"

#include "util/KLVTimer.h"

namespace kelvo {

KLVSDKInfo::KLVSDKInfo(std::string identifier) : KLVInfo(std::move(identifier)) {
  setIdentifier(std::to_string(static_cast<std::int64_t>(kKLVSDKVersion)));
  setInfo(KLVTimer::sharedTimer().currentTimeInMillis(), "sdk_start_time");
  setInfo("undefined", "config_id");
  setInfo(1, "tick_interval");
  setInfo(1, "chunk_retry_window");
  setInfo(kKLVSDKVersion, "sdk_version");
}

}  // namespace kelvo
