#include "util/KLVUtilities+Files.h"

#include <fmt/format.h>

#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/JSON.h"
#include "platform/UserDefaults.h"
#include "util/KLVDefaultsKeys.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

/// Returns the value of the JSON `text`, which must be an array or a dictionary; otherwise sets `error`.
std::optional<Value> containerOf(const std::string& text, std::string& error, const KLVAnswerLimits& limits) {
  auto value = parseJSON(text, &error, limits.values);
  if (!value || value->get<Array>() != nullptr || value->get<Dictionary>() != nullptr) return value;
  error = "neither an array nor an object at offset 0";
  return std::nullopt;
}

std::optional<std::string> contentOfConfig(const std::string& path, const KLVAnswerLimits& limits) {
  if (fileSize(path) > limits.bytes) {
    KLV_WARN("{} is larger than {} bytes: it counts as missing", path, limits.bytes);
    return std::nullopt;
  }
  FileError error;
  auto content = readFile(path, &error);
  if (!content) KLV_ERROR("opening config file: {}", error);
  return content;
}

/// Returns the user-defaults key of the hash of `module`.
std::string hashKey(std::string_view module) {
  return fmt::format(kKLVModuleHashKey, module);
}

}  // namespace

bool KLVUtilities::saveConfig(const std::optional<std::string>& data, const std::optional<std::string>& path) {
  if (!path) return false;
  KLV_DEBUG("Saving config at path: {}", *path);
  return data && writeFileAtomically(Directories::inLibrary(*path), *data);
}

std::optional<Value> KLVUtilities::readConfigAtRelativePath(const std::optional<std::string>& path,
                                                            const KLVAnswerLimits& limits) {
  if (!path) return std::nullopt;
  const std::string actualPath = Directories::inLibrary(*path);
  KLV_INFO("Fetching config at path: {} with actual path: {}", *path, actualPath);
  const auto content = contentOfConfig(actualPath, limits);
  if (!content) return std::nullopt;
  std::string error;
  auto value = containerOf(*content, error, limits);
  if (!value) KLV_ERROR("parsing json file {}", error);
  return value;
}

std::optional<Value> KLVUtilities::readConfig(const std::string& path, const KLVAnswerLimits& limits) {
  const auto content = contentOfConfig(path, limits);
  if (!content) return std::nullopt;
  std::string error;
  auto value = containerOf(*content, error, limits);
  if (!value) KLV_ERROR("parsing json file {})", error);  // Kept: the closing parenthesis.
  return value;
}

void KLVUtilities::saveHash(const std::string& hash, std::string_view module) {
  KLV_DEBUG("Saving hash: {} for module: {}", hash, module);
  UserDefaults::standard().set(hashKey(module), hash);
  if (UserDefaults::standard().synchronize()) {
    KLV_DEBUG("Hash saved successfully");
  } else {
    KLV_ERROR("Couldn't save enable SDK state");  // Kept: the text names another failure.
  }
}

std::optional<std::string> KLVUtilities::getHashForModule(std::string_view module) {
  return UserDefaults::standard().string(hashKey(module));
}

}  // namespace kelvo
