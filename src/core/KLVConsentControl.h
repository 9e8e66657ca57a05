#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/HeldCalls.h"
#include "kelvo/Consent.h"
#include "platform/DispatchQueue.h"
#include "platform/ThreadSafety.h"

namespace kelvo {

/// The base class of the controller that knows what the user has decided. Every host call goes through it. Thread: any.
///
/// | Phase       | Meaning                                            | Host calls                          |
/// |-------------|----------------------------------------------------|-------------------------------------|
/// | beforeStart | nobody has started the library                     | are held in memory                  |
/// | waiting     | it was started, but the user must decide first     | are held in memory, up to the limit |
/// | decided     | the user has decided, or no consent is required    | go to the controller's queue        |
///
/// In the first two phases the library starts no thread and touches no file, except for one reading of the consent
/// file. In the phase decided, `CollectionGate` stores or refuses what a call carries.
class KLVConsentControl {
 public:
  /// Remembers the decision and applies it. The home's consent file has it before any later call is stored, and before
  /// anything is erased. Before the start, the decision is kept in memory, and the start applies it.
  void setConsent(Consent consent) EXCLUDES(consentMutex_);
  [[nodiscard]] Consent consent() EXCLUDES(consentMutex_);
  [[nodiscard]] bool waitsForConsent() EXCLUDES(consentMutex_);
  /// Runs `task` at once, or before the start on the thread of the start.
  void whenPastStart(std::function<void()> task) EXCLUDES(consentMutex_);

  /// Has the controller's queue do the work of a host call, after that of all earlier calls; holds it before that.
  void submit(std::function<void()> call, HeldCalls::Kind kind = HeldCalls::Kind::other);
  /// The same for work that needs no order: runs it at once on the caller's thread, or holds it.
  void runOrHold(std::function<void()> call);
  /// Returns whether calls are held. The start-up then begins later.
  [[nodiscard]] bool holdsCalls() const noexcept { return heldCalls_.isHolding(); }
  /// Returns the number of held calls that make an event.
  [[nodiscard]] std::uint64_t heldEvents() const noexcept { return heldCalls_.events(); }

  /// Erases all data of the device and, if any was sent, asks the service to delete its copy. If `collectsAfterwards`,
  /// the library then starts again as a new device. Returns at once.
  virtual void eraseAll(bool collectsAfterwards) = 0;
  /// The same for `KelvoSDK::erase`. Before the user's decision, drops the held calls, and has the start erase the
  /// home.
  void erase() EXCLUDES(consentMutex_);

 protected:
  KLVConsentControl() = default;
  ~KLVConsentControl() = default;  // never deleted through this type
  KLVConsentControl(const KLVConsentControl&) = delete;
  KLVConsentControl& operator=(const KLVConsentControl&) = delete;

  /// Ends the phase beforeStart. Begins, waits for the user, or stays without collection. `userIdentifier`: of the
  /// start. Reads the consent file on the caller's thread, because no other thread may exist before.
  void pastStart(const std::string& userIdentifier) EXCLUDES(consentMutex_);
  /// Allows the library to start threads.
  static void letThreadsStart();

  /// Begins the collection, and plays `early` as soon as the monitors observe.
  virtual void stepA(const std::string& userIdentifier, const HeldCalls::Calls& early) = 0;
  /// Refuses every later call.
  virtual void stayTerminated() = 0;
  /// Completes an interrupted erasure, and sends the deletion requests that were not answered.
  virtual void resumeDeletions() = 0;
  /// Has step A erase the home before anything else.
  virtual void eraseAtStart() = 0;

  DispatchQueue controllerSerialQueue_{"com.kelvo.serial.controller"};
  HeldCalls heldCalls_;

 private:
  enum class Phase { beforeStart, waiting, decided };

  void begin(const std::string& userIdentifier);
  void beginAfterDecision() EXCLUDES(consentMutex_) REQUIRES(controllerSerialQueue_);
  /// `before`: the decision that it replaces. `hasBegun`: step A was submitted or ruled out before.
  void applyConsent(Consent consent, const std::optional<Consent>& before, bool hasBegun) EXCLUDES(consentMutex_)
      REQUIRES(controllerSerialQueue_);
  void stayDenied();

  Mutex consentMutex_;  ///< held for assignments only
  Phase phase_ GUARDED_BY(consentMutex_) = Phase::beforeStart;
  bool isRequired_ GUARDED_BY(consentMutex_) = false;
  bool hasBegun_ GUARDED_BY(consentMutex_) = false;  ///< step A was submitted or ruled out: a later grant starts again
  std::optional<Consent> decision_ GUARDED_BY(consentMutex_);   ///< the latest of the host, else that of the home
  std::optional<Consent> submitted_ GUARDED_BY(consentMutex_);  ///< the latest one on its way to `applyConsent`
  std::string userIdentifier_ GUARDED_BY(consentMutex_);
  std::vector<std::function<void()>> waiters_ GUARDED_BY(consentMutex_);
};

}  // namespace kelvo
