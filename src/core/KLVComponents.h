#pragma once

#include <memory>
#include <string>
#include <vector>

#include "network/KLVConfigManager.h"
#include "records/KLVAppInfo.h"
#include "records/KLVDeviceInfo.h"
#include "records/KLVForegroundTime.h"
#include "records/KLVSDKInfo.h"
#include "records/KLVSession.h"
#include "records/KLVUser.h"
#include "storage/KLVDataHandler.h"
#include "upload/KLVChunkManager.h"

namespace kelvo {

/// The records and components that the start-up makes; nullptr until it has made them. A restart of the session
/// replaces `session` and `dataHandler`.
/// Thread: the controller's mutex guards the pointers. The objects are thread-safe.
struct KLVComponents {
  std::string applicationIdentifier;
  KLVForegroundTime foregroundBeforeSession{Date()};  ///< not used any more once there is a session
  std::shared_ptr<KLVSession> session;
  std::shared_ptr<KLVUser> user;
  std::shared_ptr<KLVAppInfo> appInfo;
  std::shared_ptr<KLVDeviceInfo> deviceInfo;
  std::shared_ptr<KLVSDKInfo> sdkInfo;
  std::shared_ptr<KLVDataHandler> dataHandler;
  std::vector<std::shared_ptr<KLVDataHandler>> earlierHandlers;  ///< with data queues of their own
  std::shared_ptr<KLVConfigManager> configManager;
  std::shared_ptr<KLVChunkManager> chunkManager;
};

}  // namespace kelvo
