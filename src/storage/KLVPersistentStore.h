#pragma once

namespace kelvo {

/// Marks a class that keeps data beyond the process. Kept: its name differs from `KLVPersistantStore` by one letter.
class KLVPersistentStore {
 protected:
  ~KLVPersistentStore() = default;  // never deleted through this type
};

}  // namespace kelvo
