#include "core/HomeErasure.h"

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <system_error>

#include "core/HomeJournal.h"
#include "journal/KLVJournalPlace.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/HomeLock.h"
#include "platform/UserDefaults.h"
#include "records/KLVDeviceInfo.h"
#include "records/KLVFileNames.h"
#include "storage/KLVPersistantStore.h"
#include "util/KLVDefaultsKeys.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

namespace fs = std::filesystem;

bool isKept(const std::string& name) {
  return name == kKLVLockFile || name == kKLVConsent;
}

/// Deletes files and directories, and remembers those that it could not delete.
class Wipe {
 public:
  /// Deletes a directory with its content, a file, or a link itself.
  void remove(const fs::path& path) {
    std::error_code failure;
    fs::remove_all(path, failure);
    if (failure) note(path, failure);
  }

  /// Deletes everything in `directory` but the lock and the consent file.
  void empty(const fs::path& directory) {
    std::error_code failure;
    for (fs::directory_iterator entry(directory, failure), end; entry != end; entry.increment(failure)) {
      if (!isKept(entry->path().filename())) remove(entry->path());
    }
    if (failure) note(directory, failure);
  }

  /// Remembers a file that could not be deleted.
  void note(const fs::path& path, const std::error_code& failure) {
    if (left_++ == 0) first_ = path.string() + " (" + failure.message() + ")";
  }

  /// Returns true if nothing is left. Otherwise logs why.
  [[nodiscard]] bool report() const {
    if (left_ == 0) return true;
    KLV_ERROR("{} files could not be erased, the first one is {}; the next launch tries again", left_, first_);
    return false;
  }

 private:
  std::size_t left_ = 0;
  std::string first_;
};

/// Returns true if nothing is left.
bool deleteEverything() {
  static_cast<void>(UserDefaults::standard().erase());  // a file that is left is in Library
  Wipe wipe;
  wipe.remove(KLVPersistantStore::databaseRoot());
  wipe.empty(Directories::library());
  // One may be outside of Library.
  if (!removeJournalFiles(KLVJournalSettings::current())) wipe.note(kKLVJournalFile, {errno, std::generic_category()});
  // A directory keeps the time of its creation, which is the time of the installation.
  std::error_code isInUse;
  if (fs::remove(Directories::documents(), isInUse)) static_cast<void>(makeDirectory(Directories::documents(), false));
  return wipe.report();
}

}  // namespace

bool HomeErasure::isNeedless() {
  std::error_code failure;
  if (fs::exists(KLVPersistantStore::databaseRoot(), failure) || failure) return false;
  for (const auto& journal : HomeJournal::paths()) {
    if (fs::exists(journal, failure)) return false;
  }
  fs::directory_iterator entry(Directories::library(), failure), end;
  for (; entry != end && isKept(entry->path().filename()); entry.increment(failure)) {
  }
  return !failure && entry == end;
}

void HomeErasure::begin(const std::string& appId) {
  auto& defaults = UserDefaults::standard();
  const auto userId = defaults.string(kKLVDeviceIdKey);
  if (userId) {
    const std::string secret = KLVDeviceInfo::eraseSecret();
    if (defaults.boolean(kKLVIsNamedKey)) deletion_ = KLVDeletion{appId, *userId, secret};
  }
  // On a full disk this fails. `finish` makes room, and tries again.
  static_cast<void>(KLVConsentFile::change([this](KLVConsentFile& file) { note(file); }));
}

bool HomeErasure::finish() {
  bool isErased = false;
  // Inside the change, so that no other thread writes the file while its directory is emptied.
  const bool isNoted = KLVConsentFile::change([&](KLVConsentFile& file) {
    isErased = deleteEverything();
    note(file);
    file.isErasing = !isErased;
  });
  return isErased && isNoted;
}

void HomeErasure::note(KLVConsentFile& file) const {
  file.isErasing = true;
  if (deletion_ && !deletion_->isIn(file.deletions)) file.deletions.push_back(*deletion_);
}

}  // namespace kelvo
