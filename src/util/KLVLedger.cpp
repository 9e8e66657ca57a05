#include "util/KLVLedger.h"

#include "platform/Immortal.h"

namespace kelvo {

KLVLedger& KLVLedger::shared() {
  static Immortal<KLVLedger> instance;
  return *instance;
}

}  // namespace kelvo
