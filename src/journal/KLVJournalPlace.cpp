#include "journal/KLVJournalPlace.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "journal/KLVJournalFormat.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "util/KLVHostLimits.h"

namespace kelvo {
namespace {

struct UnsuitableFileSystem {
  std::uint32_t type;  ///< as `statfs` tells it
  const char* reason;
};

constexpr const char* kCopies = "copies blocks on every write";
constexpr const char* kWaits = "may wait for another machine or process";

constexpr std::array<UnsuitableFileSystem, 10> kUnsuitable{{
    {0x9123683E, kCopies},  // btrfs
    {0x2FC12FC1, kCopies},  // zfs
    {0xCA451A4E, kCopies},  // bcachefs
    {0x00003434, kCopies},  // nilfs2
    {0x00006969, kWaits},   // nfs
    {0xFF534D42, kWaits},   // cifs
    {0xFE534D42, kWaits},   // smb2
    {0x00C36400, kWaits},   // ceph
    {0x01021997, kWaits},   // 9p
    {0x65735546, kWaits},   // fuse
}};

/// Returns why the file system of `directory` is unsuitable, nullopt if it is suitable or unknown.
std::optional<std::string> problemOfFileSystem(const std::string& directory) {
  struct statfs facts {};
  if (::statfs(directory.c_str(), &facts) != 0) return std::nullopt;  // the file cannot be made, which is reported
  for (const auto& [type, reason] : kUnsuitable) {
    if (static_cast<std::uint32_t>(facts.f_type) == type)
      return fmt::format("the file system of {} {}", directory, reason);
  }
  return std::nullopt;
}

bool isPrivateDirectory(const std::string& path) {
  struct stat facts {};
  constexpr mode_t kOthers = S_IRWXG | S_IRWXO;
  return ::lstat(path.c_str(), &facts) == 0 && S_ISDIR(facts.st_mode) && facts.st_uid == ::geteuid() &&
         (facts.st_mode & kOthers) == 0;
}

}  // namespace

KLVJournalSettings KLVJournalSettings::current() {
  const char* runtime = ::secure_getenv("XDG_RUNTIME_DIR");
  return {Directories::library(), runtime != nullptr && *runtime == '/' ? runtime : "",
          KLVHostLimits::current().journalBytes};
}

std::vector<KLVJournalPlace> journalPlaces(const KLVJournalSettings& settings) {
  std::vector<KLVJournalPlace> places;
  const auto add = [&](const std::string& directory, std::string_view name) {
    places.push_back({joinPath(directory, name), directory == settings.library, problemOfFileSystem(directory)});
  };
  if (!settings.runtimeDirectory.empty() && isPrivateDirectory(settings.runtimeDirectory)) {
    const auto home = journalChecksum(settings.library.data(), settings.library.size());
    add(settings.runtimeDirectory, fmt::format("kelvo-{:016x}.journal", home));
  }
  add(settings.library, kKLVJournalFile);
  return places;
}

bool removeJournalFiles(const KLVJournalSettings& settings) {
  bool isGone = true;
  for (const auto& place : journalPlaces(settings)) {
    for (const auto& path : {place.path, place.path + std::string(kKLVNewJournal)}) {
      if (::unlink(path.c_str()) != 0 && errno != ENOENT) isGone = false;
    }
  }
  return isGone;
}

}  // namespace kelvo
