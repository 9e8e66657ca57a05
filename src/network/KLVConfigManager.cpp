#include "network/KLVConfigManager.h"

#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/JSON.h"
#include "records/KLVFileNames.h"
#include "util/KLVLogger.h"
#include "util/KLVServicePaths.h"
#include "util/KLVUtilities+Files.h"

namespace kelvo {
namespace {

// The application id follows each path directly.
constexpr std::string_view kLogsPath = "/v1/api/apps";
constexpr std::string_view kGzipChunkPath = "/v2/api/gzip-chunks?appId=";

constexpr std::string_view kEnable = "enable";
constexpr std::string_view kServicePaths = "service_paths";

}  // namespace

KLVConfigManager::KLVConfigManager(KLVConfigManagerDelegate& delegate) : delegate_(delegate) {
  const std::string saved = Directories::inLibrary(kKLVSdkConfigLocation);
  if (fileExists(saved)) configDetails_ = Value(KLVUtilities::readConfig(saved)).asDictionary();
  hasSavedConfiguration_ = configDetails_ && isValidSDKConfiguration(*configDetails_);
  if (!configDetails_) configDetails_ = getDefaultConfiguration();
  const bool* enable = configDetails_ ? (*configDetails_)[kEnable].get<bool>() : nullptr;
  delegate_.setAndSaveEnableSDKState(enable != nullptr && *enable);
}

void KLVConfigManager::getAndSaveLatestConfigurationWithCompletionHandler(std::function<void()> completion) {
  const std::string path = byReplacing(kKLVSDKConfigURL, "<app-id>", delegate_.applicationIdentifier());
  delegate_.getDataFromURLPath(
      path, [completion = std::move(completion)](const auto& data, const auto& response, const auto& error) {
        if (!succeeded(response, error)) {
          KLV_ERROR("Cound not get Configuration: {}", error ? Value(error->localizedDescription) : Value());
          return;
        }
        std::string parseError;
        const auto result = parseJSON(data.value_or(""), &parseError, kStartUpLimits.values);
        if (!result) KLV_ERROR("JSON Error: {}", parseError);
        KLV_DEBUG("Fetch Config response: {}", describe(response));
        const auto members = Value(result).asDictionary();
        const Value details = members ? (*members)["details"] : Value();
        if (details.isNull()) {
          KLV_WARN("Invalid json result while fetching config: {} with response: {}", result, describe(response));
          return;
        }
        KLV_DEBUG("Recieved Config: {}", result);
        if (!isValidSDKConfiguration(details)) return;
        if (!KLVUtilities::saveConfig(jsonText(details), std::string(kKLVSdkConfigLocation))) {
          KLV_ERROR("Couldn't write sdk config to file");
          return;
        }
        if (completion) completion();
      });
}

std::string KLVConfigManager::defaultConfig(const std::string& applicationIdentifier) {
  constexpr std::string_view kEnd = "\",\n";  // Kept: also after the last path, before the closing braces.
  std::string text =
      R"({"Monitoring":{},"Modules":{},"real_time_actions_enabled":true,"tickinterval":0.1000000000000,)"
      R"("enable":true,"send_sessions_on_sdk_start":true,"max_inactive_session_time":1800,)"
      R"("max_chunk_event_count":30,"platform":"ios","chunk_retry_window":1800,)"
      R"("heartbeat":{"enable":true,"hour":23,"minute":0},"max_bg_chunk_send_time":5,"max_fg_chunk_send_time":30,)"
      R"("service_paths":{"chunk_paths":")";
  text += byReplacing(kKLVSDKChunkURL, "<app-id>", applicationIdentifier);
  text += kEnd;
  text += R"("gzip_chunk_path":")";
  text += kGzipChunkPath;
  text += applicationIdentifier;
  text += kEnd;
  text += R"("logs_paths":")";
  text += kLogsPath;
  text += applicationIdentifier;
  text += kEnd;
  text += "}}";
  return text;
}

std::optional<Dictionary> KLVConfigManager::getDefaultConfiguration() const {
  std::string error;
  const auto parsed = parseJSON(defaultConfig(delegate_.applicationIdentifier()), &error);
  if (!parsed) KLV_ERROR("Error getting configuration: {}", error);
  return Value(parsed).asDictionary();
}

bool KLVConfigManager::isValidSDKConfiguration(const Value& configuration) {
  const auto* members = configuration.get<Dictionary>();
  return members != nullptr && !(*members)[kServicePaths].isNull() && !(*members)[kEnable].isNull();
}

}  // namespace kelvo
