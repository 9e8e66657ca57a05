#include "util/KLVDeliveryRules.h"

#include <atomic>

#include "platform/ProcessWide.h"

namespace kelvo {
namespace {

constexpr std::uint64_t kMostEvents = 5000;
constexpr std::size_t kMostText = 1024 * 1024;
constexpr std::uint64_t kMostStored = 100 * 1024 * 1024;

std::atomic<const KLVDeliveryRules*> chosen{&KLVDeliveryRules::classic};
[[maybe_unused]] const ResetAtEnd rulesAreReset([] { chosen = &KLVDeliveryRules::classic; });

}  // namespace

constexpr KLVDeliveryRules KLVDeliveryRules::classic{};

constexpr KLVDeliveryRules KLVDeliveryRules::complete{
    .doublesQuotes = true,
    .storesRestartedSessions = true,
    .cutsEveryEarlierSession = true,
    .sendsAggregateTails = true,
    .resendsWhileRunning = true,
    .cutsAfterStartInBackground = true,
    .keepsRecordsOfTheCut = true,
    .keepsEarlyUserIdentifier = true,
    .leavesOutEmptyContainers = true,
    .addsUpLifetimeCounts = true,
    .rescuesBesideAnotherProcess = true,
    .keepsJournal = true,
    .replacesForeignDeviceIds = true,
    .mostEventsInAChunk = kMostEvents,
    .mostTextInAChunk = kMostText,
    .deletesAcceptedEvents = true,
    .mostStoredBytes = kMostStored,
};

const KLVDeliveryRules& KLVDeliveryRules::current() noexcept {
  return *chosen.load(std::memory_order_acquire);
}

void KLVDeliveryRules::choose(const KLVDeliveryRules& rules) noexcept {
  chosen.store(&rules, std::memory_order_release);
}

const KLVDeliveryRules* KLVDeliveryRules::named(std::string_view name) noexcept {
  if (name == "classic") return &classic;
  if (name == "complete") return &complete;
  return nullptr;
}

}  // namespace kelvo
