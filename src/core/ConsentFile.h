#pragma once

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kelvo/Consent.h"

namespace kelvo {

/// A deletion request that the service has not answered yet.
struct KLVDeletion {
  std::string appId;
  std::string userId;  ///< the id of the erased device
  std::string secret;  ///< made with the device id; proves that the request comes from this device

  /// Returns true if both ask for the deletion of the same device.
  [[nodiscard]] bool isForDeviceOf(const KLVDeletion& other) const {
    return appId == other.appId && userId == other.userId;
  }
  /// Returns true if one of `deletions` is for the same device.
  [[nodiscard]] bool isIn(const std::vector<KLVDeletion>& deletions) const {
    return std::any_of(deletions.begin(), deletions.end(), [this](const auto& each) { return isForDeviceOf(each); });
  }
};

/// The file Library/com.kelvo.consent.json, mode 0600. It is the only file that an erasure keeps.
///
/// No file means: nobody has decided, and nothing is to be deleted. A file that cannot be read or understood may have
/// held a denial. It counts as one, with one ERROR line, because nobody could prove a consent that is not on record. If
/// it is damaged, an interrupted erasure may be forgotten, too: the erasure is repeated.
struct KLVConsentFile {
  std::optional<Consent> decision;  ///< granted or denied
  bool isErasing = false;           ///< an erasure was interrupted: it is repeated before anything else
  std::vector<KLVDeletion> deletions;

  /// Reads the file in the directory `library`. Creates nothing. Thread: any.
  static KLVConsentFile read(const std::string& library);
  /// Reads the file of this process's home, if there is one. Creates nothing, not even the home. If another user could
  /// have written a grant, it does not count, with one ERROR line. Thread: any.
  static KLVConsentFile read();

  /// Replaces the file in this process's home and waits for the disk. Creates the home. Without any content, removes
  /// the file. Returns false, after one ERROR line, on failure. Thread: any.
  [[nodiscard]] bool write() const;

  /// Reads the file of this process's home, applies `change` and writes it. Changes of other threads wait meanwhile, so
  /// `change` must not call this function. Returns as `write`. Thread: any.
  [[nodiscard]] static bool change(const std::function<void(KLVConsentFile&)>& change);
};

}  // namespace kelvo
