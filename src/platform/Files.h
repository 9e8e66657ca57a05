#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kelvo {

/// The reason of a failure, for a log line: "No such file or directory".
using FileError = std::string;

/// Owns a file descriptor, or none (-1).
class Descriptor {
 public:
  explicit Descriptor(int number) noexcept : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { static_cast<void>(close()); }

  [[nodiscard]] int get() const noexcept { return number_; }
  /// Returns false if the system could not write the file's content.
  [[nodiscard]] bool close() noexcept;

 private:
  int number_;
};

/// Opens a file or directory for reading; errno has the reason if that fails. Never waits for a pipe's writer.
Descriptor openToRead(const std::string& path, int moreFlags = 0);

inline constexpr std::size_t kLargestFile = std::size_t{64} << 20;  // bytes

/// Returns the whole content of a regular file. Returns nullopt, with the reason in `error`, if the file cannot be read
/// or is larger than `largest` bytes.
std::optional<std::string> readFile(const std::string& path, FileError* error = nullptr,
                                    std::size_t largest = kLargestFile);
std::optional<std::string> readFile(const Descriptor& file, FileError* error = nullptr,
                                    std::size_t largest = kLargestFile);

/// Replaces the file at `path`, mode 0600. Readers see the old content or the new content, never a part. On failure,
/// returns false with the reason in `error` and leaves the old file untouched.
[[nodiscard]] bool writeFileAtomically(const std::string& path, std::string_view content, FileError* error = nullptr);
/// The same, and waits until the disk has the new file. It then survives a power cut, too.
[[nodiscard]] bool writeFileDurably(const std::string& path, std::string_view content, FileError* error = nullptr);

/// Returns the size of the file at `path` in bytes, 0 if there is none.
[[nodiscard]] std::uint64_t fileSize(const std::string& path);

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

/// Returns the absolute path of an existing object, without links, "." and "..". Returns nullopt, with the reason in
/// errno, if there is no such object.
std::optional<std::string> resolvedPath(const std::string& path);

/// Returns `path` made absolute, so that it stays valid when the host changes its working directory. Returns `path`
/// unchanged if the working directory is unknown.
std::string absolutePath(const std::string& path);

}  // namespace kelvo
