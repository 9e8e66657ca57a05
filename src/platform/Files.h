#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kelvo {

/// What went wrong with a file, as text for a log line: "No such file or directory".
using FileError = std::string;

/// The whole content of a regular file; nullopt, with the reason in `error`, when it cannot be read or is
/// larger than 64 MiB.
std::optional<std::string> readFile(const std::string& path, FileError* error = nullptr);

/// Replaces the file at `path` by `content`, mode 0600: readers see the old content or the new one, never a
/// part. False, with the reason in `error`, when that fails; the old file is then untouched.
[[nodiscard]] bool writeFileAtomically(const std::string& path, std::string_view content, FileError* error = nullptr);

[[nodiscard]] bool fileExists(const std::string& path);

/// Makes a directory, mode 0700, and with `intermediates` those above it. True when it exists afterwards.
[[nodiscard]] bool makeDirectory(const std::string& path, bool intermediates, FileError* error = nullptr);

/// Removes a file, or a directory with all that is in it.
[[nodiscard]] bool removeItem(const std::string& path, FileError* error = nullptr);

/// `directory` + "/" + `name`, without a doubled slash.
std::string joinPath(std::string_view directory, std::string_view name);

}  // namespace kelvo
