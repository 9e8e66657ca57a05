#include "platform/Bundle.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <set>

#include "platform/Immortal.h"
#include "platform/Privileges.h"
#include "platform/Problem.h"
#include "platform/ProcessWide.h"
#include "platform/PropertyList.h"
#include "platform/ThreadSafety.h"
#include "platform/Trust.h"

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

bool isUsableFileName(const std::string& name) {
  const auto isForbidden = [](char character) { return character == '/' || (character >= 0 && character < ' '); };
  return !name.empty() && name.size() <= kLongestStorageName && name != "." && name != ".." &&
         std::none_of(name.begin(), name.end(), isForbidden);
}

Dictionary readInfo(const std::optional<Bundle::Resource>& resource) {
  if (!resource) return {};
  std::string error;
  if (auto info = readPropertyList(resource->file, &error)) return *std::move(info);
  reportProblem("Bundle", fmt::format("{} cannot be used: {}", resource->path, error));
  return {};
}

/// Reports once that `path` is not used.
void reportDistrust(const std::string& path, const std::string& reason) {
  struct Reported {
    Mutex mutex;
    std::set<std::string> paths GUARDED_BY(mutex);
  };
  static ProcessWide<Reported> reported;
  {
    const Lock lock(reported->mutex);
    if (!reported->paths.insert(path).second) return;
  }
  reportProblem("Bundle", fmt::format("{} is not used: {}", path, reason));
}

/// Opens and judges the object at `path`, which exists. Follows links.
std::optional<Bundle::Resource> openTrusted(const std::string& top, const std::string& path) {
  std::string resolved = path;
  auto reason = distrustBetween(top, resolved);
  Descriptor file = openToRead(resolved, O_NOFOLLOW);
  struct stat facts {};
  if (!reason && (file.get() < 0 || ::fstat(file.get(), &facts) != 0)) reason = std::strerror(errno);
  if (!reason) reason = distrust(facts, Owner::userOrRoot, resolved);
  if (!reason) return Bundle::Resource{std::move(resolved), std::move(file)};
  reportDistrust(path, *reason);
  return std::nullopt;
}

}  // namespace

std::string Bundle::Resource::loadablePath() const {
  return distrustAbove(path) ? fmt::format("/proc/self/fd/{}", file.get()) : path;
}

Bundle& Bundle::main() {
  static Immortal<Bundle> instance = [] {
    const std::string executable = executablePath();
    const std::string name = executable.substr(executable.rfind('/') + 1);
    if (actsForAnotherUser()) return Immortal<Bundle>(std::string(), name);
    if (const char* given = ::secure_getenv("KELVO_BUNDLE"); given != nullptr && *given != '\0') {
      return Immortal<Bundle>(absolutePath(given), name);
    }
    const std::string beside = executable + ".bundle", own = directoryOf(executable);
    return Immortal<Bundle>(isDirectory(beside) ? beside : own, name, own);
  }();
  return *instance;
}

Bundle::Bundle(std::string directory, const std::string& executableName, std::string top)
    : directory_(std::move(directory)),
      top_(top.empty() ? directory_ : std::move(top)),
      info_(readInfo(open("Info", "plist"))) {
  const auto* identifier = info_["CFBundleIdentifier"].get<std::string>();
  hasIdentifier_ = identifier != nullptr && isUsableFileName(*identifier);
  storageName_ = hasIdentifier_ ? *identifier : executableName;
}

std::string Bundle::storageName(const std::string& programName) const {
  return !hasIdentifier_ && isUsableFileName(programName) ? programName : storageName_;
}

std::optional<Bundle::Resource> Bundle::open(std::string_view name, std::string_view type) const {
  if (directory_.empty()) return std::nullopt;
  const std::string file = type.empty() ? std::string(name) : fmt::format("{}.{}", name, type);
  for (const std::string& path : {joinPath(directory_, file), joinPath(joinPath(directory_, "Resources"), file)}) {
    if (fileExists(path)) return openTrusted(top_, path);
  }
  return std::nullopt;
}

std::optional<std::string> Bundle::pathForResource(std::string_view name, std::string_view type) const {
  auto resource = open(name, type);
  return resource ? std::optional(std::move(resource->path)) : std::nullopt;
}

}  // namespace kelvo
