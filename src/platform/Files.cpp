#include "platform/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

namespace kelvo {
namespace {

constexpr std::size_t kReadSize = 16384;  // bytes
constexpr mode_t kPrivateDirectory = 0700;

/// A new file that the destructor removes, unless `keepAs` has renamed it.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& directory)
      : path_(joinPath(directory, ".kelvo.XXXXXX")), file_(::mkostemp(path_.data(), O_CLOEXEC)) {}
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (made_) ::unlink(path_.c_str());
  }

  [[nodiscard]] bool made() const noexcept { return made_; }

  bool fill(std::string_view content, bool syncs) {
    while (!content.empty()) {
      const ssize_t written = ::write(file_.get(), content.data(), content.size());
      if (written < 0 && errno == EINTR) continue;
      if (written < 0) return false;
      content.remove_prefix(static_cast<std::size_t>(written));
    }
    return (!syncs || ::fsync(file_.get()) == 0) && file_.close();
  }

  bool keepAs(const std::string& path) {
    if (::rename(path_.c_str(), path.c_str()) != 0) return false;
    made_ = false;
    return true;
  }

 private:
  std::string path_;
  Descriptor file_;
  bool made_ = file_.get() >= 0;
};

std::string reason(int number) {
  return std::generic_category().message(number);
}

bool syncDirectory(const std::string& path) {
  const Descriptor directory = openToRead(path, O_DIRECTORY);
  return directory.get() >= 0 && ::fsync(directory.get()) == 0;
}

std::nullopt_t unreadable(FileError* error, std::string why) {
  if (error != nullptr) *error = std::move(why);
  return std::nullopt;
}

bool failed(FileError* error, int number) {
  if (error != nullptr) *error = reason(number);
  return false;
}

}  // namespace

bool Descriptor::close() noexcept {
  const int number = std::exchange(number_, -1);
  return number < 0 || ::close(number) == 0;
}

Descriptor openToRead(const std::string& path, int moreFlags) {
  // Without O_NONBLOCK, opening a pipe that has no writer would block forever.
  return Descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | moreFlags));
}

std::optional<std::string> readFile(const std::string& path, FileError* error, std::size_t largest) {
  return readFile(openToRead(path), error, largest);
}

std::optional<std::string> readFile(const Descriptor& file, FileError* error, std::size_t largest) {
  struct stat facts {};
  if (file.get() < 0 || ::fstat(file.get(), &facts) != 0) return unreadable(error, reason(errno));
  if (!S_ISREG(facts.st_mode)) return unreadable(error, "Not a regular file");
  if (static_cast<std::uint64_t>(facts.st_size) > largest) return unreadable(error, reason(EFBIG));

  std::string content;
  content.reserve(static_cast<std::size_t>(facts.st_size));
  std::array<char, kReadSize> buffer;
  while (content.size() <= largest) {  // the file may grow while we read it
    const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
    if (count == 0) return content;
    if (count > 0) {
      content.append(buffer.data(), static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      return unreadable(error, reason(errno));
    }
  }
  return unreadable(error, reason(EFBIG));
}

// Does not flush to the disk. The file survives the death of the process, which is enough: after a power cut, its
// content can be created again.
bool writeFileAtomically(const std::string& path, std::string_view content, FileError* error) {
  TemporaryFile temporary(directoryOf(path));
  if (!temporary.made() || !temporary.fill(content, false) || !temporary.keepAs(path)) return failed(error, errno);
  return true;
}

bool writeFileDurably(const std::string& path, std::string_view content, FileError* error) {
  TemporaryFile temporary(directoryOf(path));
  if (!temporary.made() || !temporary.fill(content, true) || !temporary.keepAs(path)) return failed(error, errno);
  return syncDirectory(directoryOf(path)) || failed(error, errno);
}

std::uint64_t fileSize(const std::string& path) {
  struct stat facts {};
  return ::stat(path.c_str(), &facts) == 0 ? static_cast<std::uint64_t>(facts.st_size) : 0;
}

bool fileExists(const std::string& path) {
  struct stat facts {};
  return ::stat(path.c_str(), &facts) == 0;
}

bool isDirectory(const std::string& path) {
  struct stat facts {};
  return ::stat(path.c_str(), &facts) == 0 && S_ISDIR(facts.st_mode);
}

bool makeDirectory(const std::string& path, bool intermediates, FileError* error) {
  if (::mkdir(path.c_str(), kPrivateDirectory) == 0) return true;
  if (errno == EEXIST) return isDirectory(path) || failed(error, EEXIST);
  if (errno != ENOENT || !intermediates) return failed(error, errno);
  const std::string parent = directoryOf(path);
  if (parent == path) return failed(error, ENOENT);
  return makeDirectory(parent, true, error) && makeDirectory(path, false, error);
}

bool removeItem(const std::string& path, FileError* error) {
  std::error_code failure;
  const auto removed = std::filesystem::remove_all(path, failure);
  if (failure) return failed(error, failure.value());
  return removed > 0 || failed(error, ENOENT);
}

std::string joinPath(std::string_view directory, std::string_view name) {
  std::string path(directory);
  while (!name.empty() && name.front() == '/') name.remove_prefix(1);
  if (!path.empty() && path.back() != '/') path += '/';
  return path.append(name);
}

std::string directoryOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::optional<std::string> resolvedPath(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> resolved(::realpath(path.c_str(), nullptr), std::free);
  return resolved ? std::optional<std::string>(resolved.get()) : std::nullopt;
}

std::string absolutePath(const std::string& path) {
  std::error_code failure;
  const auto absolute = std::filesystem::absolute(path, failure);
  return failure ? path : absolute.string();
}

}  // namespace kelvo
