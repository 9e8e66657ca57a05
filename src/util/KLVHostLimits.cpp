#include "util/KLVHostLimits.h"

#include "platform/ProcessWide.h"
#include "platform/ThreadSafety.h"
#include "util/KLVDeliveryRules.h"

namespace kelvo {
namespace {

struct Chosen {
  Mutex mutex;
  KLVHostLimits limits GUARDED_BY(mutex);
};

[[maybe_unused]] const ResetAtEnd limitsAreReset([] { KLVHostLimits::choose({}); });

Chosen& chosenLimits() {
  static ProcessWide<Chosen> instance;
  return *instance;
}

}  // namespace

std::atomic<std::size_t> KLVHostLimits::waitingCalls{KLVHostLimits().mostWaitingCalls};

KLVHostLimits KLVHostLimits::current() noexcept {
  const Lock lock(chosenLimits().mutex);
  KLVHostLimits limits = chosenLimits().limits;
  if (!limits.mostStoredBytes) limits.mostStoredBytes = KLVDeliveryRules::current().mostStoredBytes;
  return limits;
}

void KLVHostLimits::choose(const KLVHostLimits& limits) noexcept {
  const Lock lock(chosenLimits().mutex);
  chosenLimits().limits = limits;
  waitingCalls.store(limits.mostWaitingCalls, std::memory_order_relaxed);
}

}  // namespace kelvo
