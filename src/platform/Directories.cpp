#include "platform/Directories.h"

#include <fmt/format.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "platform/Bundle.h"
#include "platform/Files.h"
#include "platform/Privileges.h"
#include "platform/Problem.h"
#include "platform/ProcessWide.h"
#include "platform/ThreadSafety.h"
#include "platform/Trust.h"

namespace kelvo {
namespace {

/// No user can create a file or a directory below this path.
constexpr const char* kNowhere = "/proc/kelvo-no-home";

constexpr std::size_t kPasswordEntrySize = 16384;  // bytes; enough for the texts of any real entry

/// Returns an environment variable, nullopt if it is unset or empty.
std::optional<std::string> environment(const char* name) {
  const char* value = ::secure_getenv(name);
  if (value == nullptr || *value == '\0') return std::nullopt;
  return value;
}

/// Returns the home that the environment names. In the build for tests, the recorder alone names it.
std::optional<std::string> homeOfEnvironment() {
  return kIsTestBuild ? std::nullopt : environment("KELVO_HOME");
}

/// As `environment`, but returns nullopt for a relative path, which would name a different directory for each program.
std::optional<std::string> absoluteEnvironment(const char* name) {
  auto path = environment(name);
  if (path && path->front() != '/') path.reset();
  return path;
}

std::optional<std::string> homeOfPasswordEntry() {
  std::vector<char> buffer(kPasswordEntrySize);
  passwd entry{};
  passwd* found = nullptr;
  const int failure = ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found);
  if (failure != 0 || found == nullptr || found->pw_dir == nullptr || *found->pw_dir != '/') return std::nullopt;
  return found->pw_dir;
}

std::optional<std::string> sharedDataDirectory() {
  if (auto data = absoluteEnvironment("XDG_DATA_HOME")) return data;
  auto home = absoluteEnvironment("HOME");
  if (!home) home = homeOfPasswordEntry();
  if (!home) return std::nullopt;
  return joinPath(*home, ".local/share");
}

/// Returns whether a former version has used `directory` as a home.
bool holdsHome(const std::string& directory) {
  return isDirectory(joinPath(directory, "Library/Preferences")) && isDirectory(joinPath(directory, "Documents"));
}

/// Returns KELVO_HOME, else the home of the program `name`; nullopt if there is none.
std::optional<std::string> defaultHome(const std::string& name) {
  if (const auto given = homeOfEnvironment()) return absolutePath(*given);
  const auto data = sharedDataDirectory();
  if (!data) return std::nullopt;
  auto former = joinPath(*data, name);
  return holdsHome(former) ? former : joinPath(joinPath(*data, "kelvo"), name);
}

struct Paths {
  std::string library;
  std::string documents;
  std::optional<std::string> problem;
};

Paths noHome(std::string reason) {
  return {joinPath(kNowhere, "Library"), joinPath(kNowhere, "Documents"), std::move(reason)};
}

std::string cannotBeMade(const std::string& path, const FileError& error) {
  return fmt::format("{} cannot be made: {}", path, error);
}

std::optional<std::string> distrustDirectory(const std::string& path, Owner owner) {
  struct stat facts {};
  if (::lstat(path.c_str(), &facts) != 0) return std::nullopt;  // it could not be made, which is reported
  return distrust(facts, owner, path);
}

/// Makes the directories of the home at `given` and judges them.
///
/// A home that another user has prepared could make the library write or delete files elsewhere, through links, or let
/// that user read the database. One check at the first use is enough: once it has passed, only this user and root can
/// create, rename or remove anything on the way to the home or below it, so links cannot appear later. The order
/// matters: the home and the directories above are judged first, so that their answer stays true meanwhile.
Paths made(const std::string& given) {
  FileError error;
  if (!makeDirectory(given, true, &error)) return noHome(cannotBeMade(given, error));
  const auto home = resolvedPath(given);
  if (!home) return noHome(cannotBeMade(given, std::strerror(errno)));
  const auto unsafe = [](std::string reason) { return noHome("the home is not used: " + std::move(reason)); };
  if (auto reason = distrustAbove(*home)) return unsafe(*std::move(reason));
  if (auto reason = distrustDirectory(*home, Owner::userOrRoot)) return unsafe(*std::move(reason));

  Paths paths{joinPath(*home, "Library"), joinPath(*home, "Documents"), std::nullopt};
  for (const auto& path : {paths.library, paths.documents}) {
    if (!makeDirectory(path, false, &error)) paths.problem = cannotBeMade(path, error);
    if (auto reason = distrustDirectory(path, Owner::user)) return unsafe(*std::move(reason));
    if (auto reason = distrustBelow(path)) return unsafe(*std::move(reason));
  }
  return paths;
}

Paths made(const std::optional<std::string>& home) {
  // The start reports this.
  if (actsForAnotherUser()) return noHome("the program acts for another user than the one who started it");
  auto paths =
      home ? made(*home) : noHome("there is no home directory: nothing can be stored (set KELVO_HOME or HOME)");
  if (paths.problem) reportProblem("Directories", *paths.problem);
  return paths;
}

/// The home of this process. Decided once, at the first use.
class Home {
 public:
  bool choose(const std::string& path) EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    if (kIsTestBuild && !chosen_.empty()) return true;  // the recorder's, whatever the host's options say
    if (!used_) chosen_ = path;
    return !used_ || used_ == path;
  }

  void name(const std::string& program) EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    if (!used_) programName_ = program;
  }

  std::string storageName() EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    return Bundle::main().storageName(programName_);
  }

  const Paths& paths() EXCLUDES(mutex_) {
    std::call_once(once_, [this] { paths_ = made(use()); });
    return paths_;
  }

  /// Returns the home's path, nullopt if there is none. It is final from now on.
  std::optional<std::string> use() EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    const bool isGiven = !chosen_.empty() && !homeOfEnvironment();
    const auto home = isGiven ? chosen_ : defaultHome(Bundle::main().storageName(programName_));
    used_ = home.value_or("");
    return home;
  }

 private:
  Mutex mutex_;
  std::string chosen_ GUARDED_BY(mutex_);
  std::string programName_ GUARDED_BY(mutex_);
  std::optional<std::string> used_ GUARDED_BY(mutex_);  // empty text: none; nullopt before the first use
  std::once_flag once_;
  Paths paths_;  // constant once `once_` is done
};

Home& processHome() {
  static ProcessWide<Home> instance;
  return *instance;
}

}  // namespace

bool Directories::chooseHome(const std::string& path) {
  return path.empty() || homeOfEnvironment() || processHome().choose(absolutePath(path));
}

void Directories::nameProgram(const std::string& name) {
  processHome().name(name);
}

std::string Directories::storageName() {
  return processHome().storageName();
}

std::optional<std::string> Directories::sharedData() {
  return sharedDataDirectory();
}

const std::string& Directories::library() {
  return processHome().paths().library;
}
const std::string& Directories::documents() {
  return processHome().paths().documents;
}

std::optional<std::string> Directories::existingLibrary() {
  const auto home = processHome().use();
  const auto directory = home ? resolvedPath(joinPath(*home, "Library")) : std::nullopt;
  return directory && isDirectory(*directory) ? directory : std::nullopt;
}

std::optional<std::string> Directories::problem() {
  return processHome().paths().problem;
}

std::optional<std::string> Directories::homeFor(const Bundle& bundle) {
  return defaultHome(bundle.storageName());
}

std::string Directories::inLibrary(std::string_view relativePath) {
  return joinPath(library(), relativePath);
}

}  // namespace kelvo
