#pragma once

namespace kelvo {

/// Marks what keeps data beyond the process. Kept: its name differs from `KLVPersistantStore`'s by one letter.
class KLVPersistentStore {
 protected:
  ~KLVPersistentStore() = default;  // never deleted through this type
};

}  // namespace kelvo
