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

  /// Reads a former file of the journal. Returns nullopt if there is none, or if it cannot be read; `error` then has
  /// the reason. A link, and a file that another user may change, counts as unreadable.
  [[nodiscard]] static std::optional<std::string> read(const std::string& path, FileError& error);

 private:
  KLVJournalFile(std::string path, std::byte* memory, std::size_t bytes) noexcept;

  std::string path_;
  std::byte* memory_;
  std::size_t bytes_;
  bool isKept_ = false;
};

}  // namespace kelvo
