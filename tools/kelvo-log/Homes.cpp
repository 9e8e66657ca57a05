#include "kelvo-log/Homes.h"

#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <vector>

#include "kelvo-log/Arguments.h"
#include "platform/Bundle.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "records/KLVFileNames.h"
#include "storage/KLVWaiting.h"

namespace kelvo::log {
namespace {

struct {
  double waitSeconds = kDefaultWaitSeconds;
  bool isQuiet = false;
} draining;

std::string fileNameOf(const std::string& appId) {
  const bool isDots = appId.find_first_not_of('.') == std::string::npos;  // "." and ".." are no file names
  std::string name;
  for (const char each : appId) {
    const auto byte = static_cast<unsigned char>(each);
    const bool isSafe = std::isalnum(byte) != 0 || each == '-' || each == '_' || (each == '.' && !isDots);
    name += isSafe ? std::string(1, each) : fmt::format("%{:02X}", byte);
  }
  return name;
}

/// Returns whether `home` has chunks, events or files of events that the service has not accepted.
bool hasUnsent(const std::string& home) {
  const auto waiting = KLVWaiting::inHome(home);
  if (waiting.chunks > 0 || waiting.events > 0) return true;
  std::error_code failure;
  for (const auto& file : std::filesystem::directory_iterator(joinPath(home, "Library"), failure)) {
    const std::string name = file.path().filename();
    if (name.starts_with(kKLVEventsBuffer) && !name.ends_with(".corrupt")) return true;
  }
  return false;
}

/// Returns the environment of this process with `home` as KELVO_HOME.
std::vector<std::string> environmentWith(const std::string& home) {
  std::vector<std::string> all{"KELVO_HOME=" + home};
  for (char** each = environ; *each != nullptr; ++each) all.emplace_back(*each);
  return all;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> all;
  for (std::string& text : texts) all.push_back(text.data());
  all.push_back(nullptr);
  return all;
}

/// Runs another kelvo-log without input in `home`. Returns true if it delivered everything.
bool send(const std::string& home, const std::string& appId) {
  std::vector<std::string> arguments{"kelvo-log", "--quiet", "--wait", fmt::format("{}", draining.waitSeconds)};
  // A bundle that starts the library also names its rules.
  if (!bundleStartsLibrary()) arguments.insert(arguments.end(), {"--app-id", appId, "--delivery", "complete"});
  arguments.emplace_back("/dev/null");
  auto environment = environmentWith(home);
  pid_t child = 0;
  if (::posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, pointers(arguments).data(),
                    pointers(environment).data()) != 0) {
    return false;
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return false;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void drain(const std::string& home, const std::string& appId) {
  if (!hasUnsent(home)) return;
  const bool isSent = send(home, appId);
  if (draining.isQuiet) return;
  std::fprintf(stderr,
               isSent ? "kelvo-log: sent the events that an earlier version left in %s\n"
                      : "kelvo-log: events of an earlier version still wait in %s\n",
               home.c_str());
}

/// Returns whether the bundle names a program, whose home this process then uses.
bool bundleNamesHome() {
  const auto& bundle = Bundle::main();
  return bundle.infoDictionary()["CFBundleIdentifier"] == Value(bundle.storageName());
}

}  // namespace

void setDraining(double waitSeconds, bool isQuiet) {
  draining = {waitSeconds, isQuiet};
}

void useHomeOf(const std::string& appId) {
  static bool isChosen = false;
  const char* given = ::secure_getenv("KELVO_HOME");
  const auto data = Directories::sharedData();
  if (isChosen || appId.empty() || bundleNamesHome() || (given != nullptr && *given != '\0') || !data) return;
  isChosen = true;
  drain(joinPath(*data, "kelvo-log"), appId);
  Directories::chooseHome(joinPath(joinPath(*data, "kelvo/kelvo-log"), fileNameOf(appId)));
}

}  // namespace kelvo::log
