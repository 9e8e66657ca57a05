#include "platform/Trust.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/Files.h"

namespace kelvo {
namespace {

constexpr std::size_t kEntrySize = 16384;  // bytes; enough for the texts of any private group's entry
constexpr mode_t kPermissions = 07777;

std::string unreadable(const std::string& path, int error) {
  return fmt::format("{} cannot be checked: {}", path, std::generic_category().message(error));
}

/// Returns whether `group` contains `owner` only. See Trust.h.
bool isPrivateGroup(gid_t group, uid_t owner) {
  std::vector<char> userTexts(kEntrySize), groupTexts(kEntrySize);
  passwd user{};
  passwd* foundUser = nullptr;
  if (::getpwuid_r(owner, &user, userTexts.data(), userTexts.size(), &foundUser) != 0) return false;
  if (foundUser == nullptr || user.pw_gid != group) return false;
  struct group entry {};
  struct group* foundGroup = nullptr;
  if (::getgrgid_r(group, &entry, groupTexts.data(), groupTexts.size(), &foundGroup) != 0) return false;
  if (foundGroup == nullptr || std::string_view(entry.gr_name) != user.pw_name) return false;
  for (char** member = entry.gr_mem; *member != nullptr; ++member) {
    if (std::string_view(*member) != user.pw_name) return false;
  }
  return true;
}

bool othersMayWrite(const struct stat& facts, const std::string& path) {
  if ((facts.st_mode & S_IWOTH) != 0) return true;
  if ((facts.st_mode & S_IWGRP) == 0) return false;  // this also limits an access control list
  const bool hasList = ::lgetxattr(path.c_str(), "system.posix_acl_access", nullptr, 0) > 0;
  return hasList || !isPrivateGroup(facts.st_gid, facts.st_uid);
}

std::optional<std::string> distrustOwner(const struct stat& facts, Owner owner, const std::string& path) {
  if (facts.st_uid == ::geteuid() || (owner == Owner::userOrRoot && facts.st_uid == 0)) return std::nullopt;
  return fmt::format("{} belongs to user {}", path, facts.st_uid);
}

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

Directory openDirectory(int parent, const char* name) {
  const int file = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  DIR* const directory = file >= 0 ? ::fdopendir(file) : nullptr;
  if (file >= 0 && directory == nullptr) ::close(file);
  return {directory, ::closedir};
}

std::optional<std::string> distrustBelow(int parent, const char* name, const std::string& path) {
  const Directory directory = openDirectory(parent, name);
  if (directory == nullptr) return errno == ENOENT ? std::nullopt : std::optional(unreadable(path, errno));
  const int itself = ::dirfd(directory.get());
  for (errno = 0; const dirent* entry = ::readdir(directory.get()); errno = 0) {
    const std::string_view entryName = entry->d_name;
    if (entryName == "." || entryName == "..") continue;
    const std::string below = joinPath(path, entryName);
    struct stat facts {};
    if (::fstatat(itself, entry->d_name, &facts, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) continue;
      return unreadable(below, errno);
    }
    if (auto reason = distrust(facts, Owner::user, below)) return reason;
    if (!S_ISDIR(facts.st_mode)) continue;
    if (auto reason = distrustBelow(itself, entry->d_name, below)) return reason;
  }
  return errno == 0 ? std::nullopt : std::optional(unreadable(path, errno));
}

/// Judges the object at `path`, which root or the user must own. Replaces `path` by the target if it is a link.
std::optional<std::string> distrustOrFollow(std::string& path) {
  struct stat facts {};
  if (::lstat(path.c_str(), &facts) != 0) return unreadable(path, errno);
  if (!S_ISLNK(facts.st_mode)) return distrust(facts, Owner::userOrRoot, path);
  if (auto reason = distrustOwner(facts, Owner::userOrRoot, path)) return reason;
  const auto target = resolvedPath(path);
  if (!target) return unreadable(path, errno);
  path = *target;
  for (const auto& each : {directoryOf(path), path}) {
    if (::lstat(each.c_str(), &facts) != 0) return unreadable(each, errno);
    if (auto reason = distrust(facts, Owner::userOrRoot, each)) return reason;
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> distrust(const struct stat& facts, Owner owner, const std::string& path) {
  if (auto reason = distrustOwner(facts, owner, path)) return reason;
  if (S_ISLNK(facts.st_mode)) return fmt::format("{} is a link", path);
  if (!othersMayWrite(facts, path)) return std::nullopt;
  return fmt::format("other users may write to {} (mode {:o})", path, facts.st_mode & kPermissions);
}

std::optional<std::string> distrustBelow(const std::string& path) {
  return distrustBelow(AT_FDCWD, path.c_str(), path);
}

std::optional<std::string> distrustBetween(const std::string& top, std::string& path) {
  const std::string rest = path.substr(std::min(top.size(), path.size()));
  path = top;
  if (auto reason = distrustOrFollow(path)) return reason;
  for (std::size_t from = 0; from < rest.size();) {
    const auto to = std::min(rest.find('/', from), rest.size());
    if (to > from) {
      path = joinPath(path, rest.substr(from, to - from));
      if (auto reason = distrustOrFollow(path)) return reason;
    }
    from = to + 1;
  }
  return std::nullopt;
}

std::optional<std::string> distrustAbove(const std::string& path) {
  for (std::string above = path; above != "/";) {
    above = directoryOf(above);
    struct stat facts {};
    if (::lstat(above.c_str(), &facts) != 0) return unreadable(above, errno);
    if (auto reason = distrustOwner(facts, Owner::userOrRoot, above)) return reason;
    // In a sticky directory, only the owner of an entry may rename it.
    const bool isSticky = (facts.st_mode & S_ISVTX) != 0;
    if (isSticky || !othersMayWrite(facts, above)) continue;
    return fmt::format("other users may replace {}, because they may write to {} (mode {:o})", path, above,
                       facts.st_mode & kPermissions);
  }
  return std::nullopt;
}

}  // namespace kelvo
