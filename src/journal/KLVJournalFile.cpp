#include "journal/KLVJournalFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "journal/KLVJournalFormat.h"
#include "journal/KLVJournalPlace.h"
#include "platform/FileLimitShield.h"
#include "platform/Trust.h"

namespace kelvo {
namespace {

constexpr mode_t kPrivateFile = 0600;
/// The largest file that is read: one with all entries of two others, each of the largest size.
constexpr std::size_t kLargestJournal = std::size_t{256} << 20;

std::string temporaryName(const std::string& path) {
  return path + std::string(kKLVNewJournal);
}

/// Allocates the file's blocks. Returns 0 or an error number.
int allocate(const Descriptor& file, std::size_t bytes) {
  const FileLimitShield shield;
  int failure = EINTR;
  while (failure == EINTR) failure = ::posix_fallocate(file.get(), 0, static_cast<off_t>(bytes));
  return failure;
}

/// Returns whether an attempt that has failed with this error may succeed later.
bool isShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == EIO;
}

/// Makes every page present and writable, so that no later write waits for one.
void touch(std::byte* memory, std::size_t bytes) {
  for (std::size_t page = 0; page < bytes; page += kJournalHeaderBytes) {
    *static_cast<volatile std::byte*>(memory + page) = std::byte{0};
  }
}

}  // namespace

KLVJournalFile::KLVJournalFile(std::string path, std::byte* memory, std::size_t bytes) noexcept
    : path_(std::move(path)), memory_(memory), bytes_(bytes) {}

KLVJournalFile::KLVJournalFile(KLVJournalFile&& other) noexcept
    : path_(std::move(other.path_)),
      memory_(std::exchange(other.memory_, nullptr)),
      bytes_(other.bytes_),
      isKept_(other.isKept_) {}

KLVJournalFile::~KLVJournalFile() {
  if (memory_ == nullptr) return;
  ::munmap(memory_, bytes_);
  if (!isKept_) ::unlink(temporaryName(path_).c_str());
}

std::optional<KLVJournalFile> KLVJournalFile::make(const std::string& path, std::size_t bytes, FileError& error) {
  const auto failed = [&](int number) {
    error = std::generic_category().message(number);
    return std::nullopt;
  };
  const std::string name = temporaryName(path);
  ::unlink(name.c_str());  // of a process that was killed here
  const Descriptor file(::open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kPrivateFile));
  if (file.get() < 0) return failed(errno);
  int failure = allocate(file, bytes);
  void* memory = MAP_FAILED;
  if (failure == 0) {
    memory = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (memory == MAP_FAILED) failure = errno;
  }
  if (failure != 0) {
    ::unlink(name.c_str());
    return failed(failure);
  }
  touch(static_cast<std::byte*>(memory), bytes);
  return KLVJournalFile(path, static_cast<std::byte*>(memory), bytes);
}

bool KLVJournalFile::keep(FileError& error) {
  isKept_ = ::rename(temporaryName(path_).c_str(), path_.c_str()) == 0;
  if (!isKept_) error = std::generic_category().message(errno);
  return isKept_;
}

void KLVJournalFile::retire() noexcept {
  ::mmap(memory_, bytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
}

KLVJournalFile::Former KLVJournalFile::read(const std::string& path) {
  const Descriptor file = openToRead(path, O_NOFOLLOW);
  struct stat facts {};
  if (file.get() < 0 || ::fstat(file.get(), &facts) != 0) {
    if (errno == ENOENT) return {};
    return {{}, std::generic_category().message(errno), isShortage(errno)};
  }
  if (auto reason = distrust(facts, Owner::user, path)) return {{}, *std::move(reason)};
  FileError problem;
  auto content = readFile(file, &problem, kLargestJournal);
  const bool isFile = S_ISREG(facts.st_mode) && static_cast<std::size_t>(facts.st_size) <= kLargestJournal;
  return {std::move(content), std::move(problem), !content && isFile};
}

}  // namespace kelvo
