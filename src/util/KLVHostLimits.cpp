#include "util/KLVHostLimits.h"

#include "platform/Immortal.h"
#include "platform/ThreadSafety.h"

namespace kelvo {
namespace {

struct Chosen {
  Mutex mutex;
  KLVHostLimits limits GUARDED_BY(mutex);
};

Chosen& chosen() {
  static Immortal<Chosen> instance;
  return *instance;
}

}  // namespace

KLVHostLimits KLVHostLimits::current() noexcept {
  const Lock lock(chosen().mutex);
  return chosen().limits;
}

void KLVHostLimits::choose(const KLVHostLimits& limits) noexcept {
  const Lock lock(chosen().mutex);
  chosen().limits = limits;
}

}  // namespace kelvo
