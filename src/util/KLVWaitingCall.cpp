#include "util/KLVWaitingCall.h"

#include <chrono>
#include <exception>

#include "platform/DispatchQueue.h"
#include "platform/Problem.h"
#include "util/KLVLedger.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

constexpr std::chrono::seconds kBetweenLines(1);

std::atomic<std::size_t> refused{0};  // since the last line

}  // namespace

std::atomic<std::size_t> KLVWaitingCall::waiting_{0};

void KLVWaitingCall::refuse(bool isEvent) noexcept {
  waiting_.fetch_sub(1, std::memory_order_relaxed);
  if (isEvent) KLVLedger::shared().refuse(KLVLedgerEntry::refusedStorm);
  if (refused.fetch_add(1) > 0) return;
  try {
    DispatchQueue::global().after(kBetweenLines, [] {
      KLV_WARN("{} calls are refused: {} others wait to be stored", refused.exchange(0),
               KLVHostLimits::currentMostWaitingCalls());
    });
  } catch (const std::exception& error) {
    refused.store(0);
    reportProblem(__PRETTY_FUNCTION__, error.what());
  }
}

}  // namespace kelvo
