#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

namespace kelvo {

/// Who may own a file that the library relies on. The user is the effective one.
enum class Owner { user, userOrRoot };

// Each of these functions returns in one sentence why the library must not rely on a file: "/a/b belongs to user 1000".
// nullopt means that nobody else can change the file.
//
// "Nobody else may write" allows the owner's private group, because many systems create files with umask 002. A group
// is private if it is the owner's primary group and has the owner's name, the group file lists no other member, and the
// file has no access control list.

/// Judges owner and mode of the object with these `facts`. A link is refused. `path` is the object's place.
std::optional<std::string> distrust(const struct stat& facts, Owner owner, const std::string& path);

/// Judges everything below the directory at `path`, but not the directory itself, which must be the user's. Opens
/// directories only: opening and closing a file would drop the record locks that this process holds on it. An object
/// that disappears meanwhile is ignored.
std::optional<std::string> distrustBelow(const std::string& path);

/// Judges every object on the way from the directory `top` down to `path`, both included. Follows a link: its target
/// and the target's directory are judged, and `path` becomes the target.
std::optional<std::string> distrustBetween(const std::string& top, std::string& path);

/// Judges the directories above `path`, which has no links. Another user who may rename entries in one of them can put
/// something else in the place of `path` at any time.
std::optional<std::string> distrustAbove(const std::string& path);

}  // namespace kelvo
