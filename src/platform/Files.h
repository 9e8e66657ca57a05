#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kelvo {

/// The reason of a failure, for a log line: "No such file or directory".
using FileError = std::string;

/// Returns the whole content of a regular file. Returns nullopt, with the reason in `error`, if the file cannot be read
/// or is larger than 64 MiB.
std::optional<std::string> readFile(const std::string& path, FileError* error = nullptr);

/// Replaces the file at `path`, mode 0600. Readers see the old content or the new content, never a part. On failure,
/// returns false with the reason in `error` and leaves the old file untouched.
[[nodiscard]] bool writeFileAtomically(const std::string& path, std::string_view content, FileError* error = nullptr);

/// Returns whether a file or a directory exists at `path`.
[[nodiscard]] bool fileExists(const std::string& path);

[[nodiscard]] bool isDirectory(const std::string& path);

/// Creates a directory with mode 0700, and with `intermediates` also its missing parents. Returns whether the directory
/// exists afterwards; if not, `error` has the reason.
[[nodiscard]] bool makeDirectory(const std::string& path, bool intermediates, FileError* error = nullptr);

/// Removes a file, or a directory with all its content. Returns false, with the reason in `error`, on failure.
[[nodiscard]] bool removeItem(const std::string& path, FileError* error = nullptr);

/// Returns `directory` + "/" + `name`, without a doubled slash.
std::string joinPath(std::string_view directory, std::string_view name);

/// Returns the directory of the file at `path`, "." if `path` has no slash.
std::string directoryOf(const std::string& path);

/// Returns `path` made absolute, so that it stays valid when the host changes its working directory. Returns `path`
/// unchanged if the working directory is unknown.
std::string absolutePath(const std::string& path);

}  // namespace kelvo
