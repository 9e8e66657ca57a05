#include "platform/Directories.h"

#include <fmt/format.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <vector>

#include "platform/Bundle.h"
#include "platform/Files.h"
#include "platform/Immortal.h"
#include "platform/Problem.h"

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

std::string root() {
  if (auto home = Directories::homeFor(Bundle::main())) return *std::move(home);
  reportProblem(__PRETTY_FUNCTION__, "there is no home directory: nothing can be stored (set KELVO_HOME or HOME)");
  return kNowhere;
}

struct Paths {
  std::string library;
  std::string documents;
};

Paths made(const std::string& root) {
  Paths paths{joinPath(root, "Library"), joinPath(root, "Documents")};
  if (root == kNowhere) return paths;
  for (const auto& path : {paths.library, paths.documents}) {
    FileError error;
    if (!makeDirectory(path, true, &error)) {
      reportProblem(__PRETTY_FUNCTION__, fmt::format("{} cannot be made: {}", path, error));
    }
  }
  return paths;
}

const Paths& paths() {
  static Immortal<Paths> instance(made(root()));
  return *instance;
}

}  // namespace

const std::string& Directories::library() {
  return paths().library;
}
const std::string& Directories::documents() {
  return paths().documents;
}

std::optional<std::string> Directories::homeFor(const Bundle& bundle) {
  if (const auto given = environment("KELVO_HOME")) return absolutePath(*given);
  const auto data = sharedDataDirectory();
  return data ? std::optional(joinPath(*data, bundle.storageName())) : std::nullopt;
}

std::string Directories::inLibrary(std::string_view relativePath) {
  return joinPath(library(), relativePath);
}

}  // namespace kelvo
