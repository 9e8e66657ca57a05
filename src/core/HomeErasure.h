#pragma once

#include <optional>
#include <string>

#include "core/ConsentFile.h"

namespace kelvo {

/// Deletes everything that the library keeps on the disk, in a way that survives a kill at any moment: what one process
/// begins, `isErasing` in the consent file makes the next launch finish.
///
/// Only a process that holds the home may use this. The other components must write nothing meanwhile. Thread: one at a
/// time. Both functions block on the disk.
class HomeErasure {
 public:
  /// Returns true if the home holds nothing but a consent file and a lock: then there is nothing to erase, and no lock
  /// to take. Creates the home.
  [[nodiscard]] static bool isNeedless();
  /// Notes in the consent file that an erasure is under way and, if any request can have named the device, the deletion
  /// request that follows it. `appId` is the application that the request is for.
  void begin(const std::string& appId);
  /// Deletes the database, the user defaults, the journal, and everything in Library but the lock and the consent file.
  /// Never follows a link. Then clears the note. If a file is left, keeps the note, logs one ERROR line and returns
  /// false.
  [[nodiscard]] bool finish();

 private:
  void note(KLVConsentFile& file) const;

  std::optional<KLVDeletion> deletion_;
};

}  // namespace kelvo
