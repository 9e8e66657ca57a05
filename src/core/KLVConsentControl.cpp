#include "core/KLVConsentControl.h"

#include <utility>

#include "core/ConsentFile.h"
#include "core/HostSettings.h"
#include "core/Readiness.h"
#include "platform/Directories.h"
#include "platform/SwitchedOff.h"
#include "platform/Thread.h"
#include "util/KLVHostLimits.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

constexpr const char* kDenied = "The user has denied consent: nothing is collected";

}  // namespace

void KLVConsentControl::letThreadsStart() {
  allowThreads();
  KLVLogger::threadsAreAllowed();
}

void KLVConsentControl::submit(std::function<void()> call, HeldCalls::Kind kind) {
  if (!heldCalls_.keep(kind, call)) controllerSerialQueue_.async(std::move(call));
}

void KLVConsentControl::runOrHold(std::function<void()> call) {
  if (!heldCalls_.keep(HeldCalls::Kind::other, call)) call();
}

void KLVConsentControl::whenPastStart(std::function<void()> task) {
  {
    const Lock lock(consentMutex_);
    if (phase_ == Phase::beforeStart) return waiters_.push_back(std::move(task));
  }
  task();
}

Consent KLVConsentControl::consent() {
  const Lock lock(consentMutex_);
  if (decision_) return *decision_;
  return isRequired_ || phase_ == Phase::beforeStart ? Consent::undecided : Consent::granted;
}

bool KLVConsentControl::waitsForConsent() {
  const Lock lock(consentMutex_);
  return phase_ == Phase::waiting;
}

void KLVConsentControl::pastStart(const std::string& userIdentifier) {
  const KLVConsentFile file = KLVConsentFile::read();
  const bool isOff = SwitchedOff::reason().has_value();
  std::optional<Consent> given;  // by the host, before the start
  std::vector<std::function<void()>> waiters;
  bool isUndecided = false, waits = false, begins = false;
  {
    const Lock lock(consentMutex_);
    isRequired_ = HostSettings::shared().requiresConsent();
    given = std::exchange(decision_, decision_ ? decision_ : file.decision);
    submitted_ = file.decision;
    isUndecided = isRequired_ && !decision_;
    waits = isUndecided && !isOff;
    begins = !waits && !isOff && decision_ != Consent::denied;
    hasBegun_ = isOff || (!waits && !given);
    phase_ = waits ? Phase::waiting : Phase::decided;
    userIdentifier_ = userIdentifier;
    waiters.swap(waiters_);
  }
  // Step A does this for a process that collects.
  const bool resumes = !begins && (file.isErasing || !file.deletions.empty());
  if (!isUndecided || resumes) letThreadsStart();
  if (resumes) controllerSerialQueue_.async([this] { resumeDeletions(); });
  if (waits) {
    heldCalls_.limit(KLVHostLimits::current().mostHeldCalls);
    KLV_INFO("Waiting for the user's consent: nothing is collected");
    Readiness::shared().set(Readiness::State::waitingForConsent,
                            "Calls are held in memory until the user decides about consent");
  } else if (given) {
    setConsent(*given);
  } else if (isOff) {
    heldCalls_.drop();
  } else if (file.decision == Consent::denied) {
    heldCalls_.drop();
    controllerSerialQueue_.async([this] { stayDenied(); });
  } else {
    begin(userIdentifier);
  }
  for (const auto& waiter : waiters) waiter();
}

/// Submits the calls of before the start, and then step A. The monitors do not observe before step A, which therefore
/// plays the reports among the calls.
void KLVConsentControl::begin(const std::string& userIdentifier) {
  heldCalls_.open([this, &userIdentifier](HeldCalls::Calls& calls) {
    HeldCalls::Calls reports;
    for (auto& held : calls) {
      held.isReport() ? reports.push_back(std::move(held)) : controllerSerialQueue_.async(std::move(held.call));
    }
    controllerSerialQueue_.async(
        [this, userIdentifier, reports = std::move(reports)] { stepA(userIdentifier, reports); });
  });
}

/// Runs step A, which plays all held calls in their order.
void KLVConsentControl::beginAfterDecision() {
  HeldCalls::Calls early;
  heldCalls_.open([&](HeldCalls::Calls& calls) { early.swap(calls); });
  std::string userIdentifier;
  {
    const Lock lock(consentMutex_);
    userIdentifier = userIdentifier_;
  }
  stepA(userIdentifier, early);
}

void KLVConsentControl::erase() {
  bool isDecided = false;
  {
    const Lock lock(consentMutex_);
    isDecided = phase_ == Phase::decided;
  }
  if (!isDecided) {
    static_cast<void>(heldCalls_.clear(KLVLedgerEntry::droppedBeforeConsent));
    return eraseAtStart();
  }
  heldCalls_.close();
  static_cast<void>(heldCalls_.clear(KLVLedgerEntry::notStored));
  eraseAll(consent() != Consent::denied);
}

void KLVConsentControl::setConsent(Consent consent) {
  if (consent == Consent::undecided) {
    KLV_WARN("Ignoring a consent that is neither granted nor denied");
    return;
  }
  const bool isOff = SwitchedOff::reason().has_value();
  {
    const Lock lock(consentMutex_);
    decision_ = consent;
    if (phase_ == Phase::beforeStart) return;  // the start applies it
  }
  // Where the library is switched off, it touches nothing. Only what an earlier launch has stored is erased.
  if (isOff && (consent == Consent::granted || !Directories::existingLibrary())) return;
  letThreadsStart();
  HeldCalls::Calls dropped;  // destroyed without the mutex: they may own objects of the host
  const Lock lock(consentMutex_);
  phase_ = Phase::decided;
  const auto before = std::exchange(submitted_, consent);
  // A denial, and a grant that follows one, drop the earlier calls and hold the later ones until the erasure ends. So
  // each call has the consent of its own moment, however late the queue applies the decisions.
  const bool hasBegun = std::exchange(hasBegun_, true);
  const bool endsDenial = hasBegun && consent == Consent::granted && before == Consent::denied;
  if (endsDenial || (consent == Consent::denied && (before != consent || !hasBegun))) {
    heldCalls_.close();
    dropped = heldCalls_.clear(hasBegun ? KLVLedgerEntry::notStored : KLVLedgerEntry::droppedBeforeConsent);
  }
  controllerSerialQueue_.async([this, consent, before, hasBegun] {
    controllerSerialQueue_.assertCurrent();
    applyConsent(consent, before, hasBegun);
  });
}

void KLVConsentControl::applyConsent(Consent consent, const std::optional<Consent>& before, bool hasBegun) {
  const bool isDenied = consent == Consent::denied;
  if (before != consent) {
    // The same write announces the erasure: a kill before its end leaves no data behind. The decision also counts if
    // the write fails, which is logged.
    static_cast<void>(KLVConsentFile::change([=](KLVConsentFile& file) {
      file.decision = consent;
      file.isErasing = file.isErasing || isDenied;
    }));
  }
  if (!isDenied) {
    if (!hasBegun) return beginAfterDecision();
    // Nothing is left to erase. Calls of the time without consent may still be on the bus: an erasure drops them.
    if (before == Consent::denied) eraseAll(true);
  } else if (!hasBegun || before != consent) {
    if (!hasBegun) stayDenied();
    Readiness::shared().set(Readiness::State::consentDenied, kDenied);
    eraseAll(false);
  }
}

void KLVConsentControl::stayDenied() {
  KLV_INFO("{}", kDenied);
  stayTerminated();
  Readiness::shared().set(Readiness::State::consentDenied, kDenied);
}

}  // namespace kelvo
