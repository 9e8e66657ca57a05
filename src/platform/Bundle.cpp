#include "platform/Bundle.h"

#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "platform/Files.h"
#include "platform/Immortal.h"
#include "platform/Problem.h"
#include "platform/PropertyList.h"

namespace kelvo {
namespace {

constexpr std::size_t kLongestStorageName = 200;  // leaves room for an extension in a file name

/// Returns the full path of the running program, even if its file has been replaced since the start.
std::string executablePath() {
  std::array<char, PATH_MAX> buffer;
  const ssize_t size = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
  if (size <= 0) return joinPath("/", program_invocation_short_name);
  std::string path(buffer.data(), static_cast<std::size_t>(size));
  if (constexpr std::string_view kDeleted = " (deleted)"; path.ends_with(kDeleted) && !fileExists(path)) {
    path.resize(path.size() - kDeleted.size());
  }
  return path;
}

std::string mainDirectory(const std::string& executable) {
  if (const char* given = ::secure_getenv("KELVO_BUNDLE"); given != nullptr && *given != '\0') {
    return absolutePath(given);
  }
  std::string beside = executable + ".bundle";
  return isDirectory(beside) ? beside : executable.substr(0, executable.rfind('/') + 1);
}

bool isUsableFileName(const std::string& name) {
  return !name.empty() && name.size() <= kLongestStorageName && name != "." && name != ".." &&
         name.find('/') == std::string::npos;
}

Dictionary readInfo(const std::optional<std::string>& path) {
  if (!path) return {};
  std::string error;
  if (auto info = readPropertyList(*path, &error)) return *std::move(info);
  reportProblem(__PRETTY_FUNCTION__, fmt::format("{} cannot be used: {}", *path, error));
  return {};
}

}  // namespace

Bundle& Bundle::main() {
  static Immortal<Bundle> instance = [] {
    const std::string executable = executablePath();
    return Immortal<Bundle>(mainDirectory(executable), executable.substr(executable.rfind('/') + 1));
  }();
  return *instance;
}

Bundle::Bundle(std::string directory, const std::string& executableName)
    : directory_(std::move(directory)), info_(readInfo(pathForResource("Info", "plist"))) {
  const auto* identifier = info_["CFBundleIdentifier"].get<std::string>();
  storageName_ = identifier != nullptr && isUsableFileName(*identifier) ? *identifier : executableName;
}

std::optional<std::string> Bundle::pathForResource(std::string_view name, std::string_view type) const {
  const std::string file = type.empty() ? std::string(name) : fmt::format("{}.{}", name, type);
  for (std::string path : {joinPath(directory_, file), joinPath(joinPath(directory_, "Resources"), file)}) {
    if (fileExists(path)) return path;
  }
  return std::nullopt;
}

}  // namespace kelvo
