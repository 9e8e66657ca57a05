#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/Files.h"

namespace kelvo {

/// A new file for the journal, mapped into memory, all zeros. Its blocks are allocated and its pages are present. Its
/// name is that of the journal with ".new" behind it, until `keep`. The destructor unmaps the memory and removes a file
/// that was not kept.
class KLVJournalFile {
 public:
  /// Makes the file, mode 0600. Returns nullopt with the reason in `error` on failure. Blocks on the disk.
  [[nodiscard]] static std::optional<KLVJournalFile> make(const std::string& path, std::size_t bytes, FileError& error);

  KLVJournalFile(KLVJournalFile&& other) noexcept;
  KLVJournalFile(const KLVJournalFile&) = delete;
  KLVJournalFile& operator=(const KLVJournalFile&) = delete;
  ~KLVJournalFile();

  [[nodiscard]] std::byte* memory() const noexcept { return memory_; }
  /// Puts the file in the place of the journal's former file. Returns false with the reason in `error` on failure.
  [[nodiscard]] bool keep(FileError& error);
  /// Gives the memory back: it reads as zeros, stays writable, and belongs to no file any more.
  void retire() noexcept;

  /// A former file of the journal.
  struct Former {
    std::optional<std::string> content;  ///< nullopt: there is none, or it cannot be read
    FileError problem;                   ///< why it cannot be read
    bool mayPass = false;                ///< the problem may pass, so the file must stay
  };
  /// Reads a former file of the journal. A link, and a file that another user may change, is never read.
  [[nodiscard]] static Former read(const std::string& path);

 private:
  KLVJournalFile(std::string path, std::byte* memory, std::size_t bytes) noexcept;

  std::string path_;
  std::byte* memory_;
  std::size_t bytes_;
  bool isKept_ = false;
};

}  // namespace kelvo
