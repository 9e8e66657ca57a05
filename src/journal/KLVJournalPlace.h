#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvo {

/// The journal's file in the Library directory.
inline constexpr std::string_view kKLVJournalFile = "com.kelvo.journal";
/// What follows the name of a file that is not in its place yet.
inline constexpr std::string_view kKLVNewJournal = ".new";

/// Where the journal may be and how large it is.
struct KLVJournalSettings {
  std::string library;           ///< the home's Library directory
  std::string runtimeDirectory;  ///< of this user's login, in memory; empty: none
  std::uint64_t bytes = 0;       ///< the size of the file; 0: no journal

  /// The settings of this process: its home, `XDG_RUNTIME_DIR`, the limits of the host.
  [[nodiscard]] static KLVJournalSettings current();
};

/// A file that the journal may be in.
struct KLVJournalPlace {
  std::string path;
  bool isInLibrary = false;              ///< else in the runtime directory
  std::optional<std::string> problem{};  ///< why the journal cannot be there, in one sentence; nullopt: it can
};

/// Returns the places in the order of preference: the runtime directory if there is one, then the Library directory.
/// Looks at the directories, creates nothing.
///
/// A runtime directory counts if it is a directory of this user alone (mode 0700). Its file is named after the home's
/// path, because the homes of all programs share it. A place is bad if its file system copies blocks on every write, or
/// may wait for another machine: a page fault would then wait, or fail on a full disk.
[[nodiscard]] std::vector<KLVJournalPlace> journalPlaces(const KLVJournalSettings& settings);

/// Deletes the journal's files in all places, for an erasure while no journal is open. Returns false if one is left.
[[nodiscard]] bool removeJournalFiles(const KLVJournalSettings& settings);

}  // namespace kelvo
