#include <utility>

#include "core/AttributeFlattening.h"
#include "core/JournalReplay.h"
#include "core/KLVController.h"
#include "platform/Clock.h"
#include "platform/ThreadPool.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVException.h"
#include "util/KLVLedger.h"
#include "util/KLVLogger.h"
#include "util/KLVTimer.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+Device.h"
#include "util/KLVWaitingCall.h"

namespace kelvo {
namespace {

using Kind = KLVJournalKind;

/// Has the journal keep the call, unless it has no `text`: such a call is refused.
void record(const KLVWaitingCall& call, Kind kind, Date when, const std::optional<std::string>& text,
            const std::optional<Dictionary>& info, bool shouldFlatten = false) {
  if (!text) return;
  const std::uint8_t flags = shouldFlatten ? kKLVJournalFlattens : 0;
  call.record({static_cast<std::uint8_t>(kind), flags, when, text, info ? &*info : nullptr});
}

/// Replaces `info` with its clean copy. Returns false, after one ERROR line, if it cannot be cleaned: the caller drops
/// the call.
bool clean(KLVHostAttributes& info) {
  try {
    if (!info.isClean) info.values = KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(info.values);
    return true;
  } catch (const KLVInvalidArgument& fault) {
    KLV_ERROR("{}", fault.what());
    return false;
  }
}

/// The same for an event, which the ledger counts.
bool cleanEvent(KLVHostAttributes& info) {
  KLVLedger::shared().add(KLVLedgerEntry::logged);
  const bool isClean = clean(info);
  if (!isClean) KLVLedger::shared().add(KLVLedgerEntry::refusedUncleanable);
  return isClean;
}

void countNameless() {
  KLVLedger::shared().add(KLVLedgerEntry::refusedNameless);
}

/// Returns whether an event of this type counts as logged when the host calls. Others do when they are dispatched.
bool isCountedAtItsCall(KLVEventType type) {
  return type == KLVEventType::app || type == KLVEventType::client || type == KLVEventType::customError;
}

}  // namespace

void KLVController::setUserIdentifier(std::optional<std::string> identifier) {
  if (!identifier) {
    KLV_ERROR("Identifier passed is nil");
    return;
  }
  const auto call = KLVWaitingCall::uncounted();
  record(call, Kind::userIdentifier, Clock::now(), identifier, std::nullopt);
  submit([this, identifier = *std::move(identifier), call] {
    const auto state = gateState();
    const bool isEarly = state == CollectionGate::State::idle || state == CollectionGate::State::initialising;
    if (state == CollectionGate::State::running || (isEarly && KLVDeliveryRules::current().keepsEarlyUserIdentifier)) {
      setAttributes({true, {{"custom_user_id", identifier}}, call});
    } else {
      KLV_ERROR("SDK not enabled - user identifier not set");
    }
  });
}

void KLVController::logScreenWithName(const std::optional<std::string>& title) {
  if (KLVUtilities::isInvalidString(title)) {
    KLVLedger::shared().refuse(KLVLedgerEntry::refusedNameless);
    KLV_WARN("Invalid title: {} given", title);
    return;
  }
  auto call = KLVWaitingCall::admit();
  if (!call) return;
  const Date when = Clock::now();
  record(call, Kind::screen, when, title, std::nullopt);
  submit([this, title = *title, when,
          call = std::move(call)] { navigationMonitor_->logScreenWithName(title, when, call); },
         HeldCalls::Kind::namedScreen);
}

void KLVController::logClientEventWithName(std::optional<std::string> name, KLVHostAttributes info,
                                           bool shouldFlatten) {
  auto call = KLVWaitingCall::admit();
  if (!call || !cleanEvent(info)) return;
  record(call, Kind::clientEvent, Clock::now(), name, info.values, shouldFlatten);
  submit(
      [this, name = std::move(name), info = std::move(info.values), shouldFlatten, call = std::move(call)] {
        if (!name) {
          countNameless();
          KLV_WARN("Improper app event logged");
          return;
        }
        clientEventSource_.logEvent(*name, flattened(info.value_or(Dictionary()), shouldFlatten), std::nullopt, call);
      },
      HeldCalls::Kind::event);
}

void KLVController::logAppEventWithName(std::optional<std::string> name, KLVHostAttributes info, bool shouldFlatten,
                                        bool isAggregate) {
  auto call = KLVWaitingCall::admit();
  if (!call || !cleanEvent(info)) return;
  const Date when = Clock::now();
  record(call, isAggregate ? Kind::aggregateEvent : Kind::appEvent, when, name, info.values, shouldFlatten);
  submit(
      [this, name = std::move(name), info = std::move(info.values), shouldFlatten, isAggregate, when,
       call = std::move(call)] {
        if (const auto handler = dataHandler()) handler->catchUp();  // a queued call takes less memory than its event
        const pool::ShortTask shortTask;
        if (!name) {
          countNameless();
          KLV_WARN("Improper app event logged");
          return;
        }
        Dictionary flat = flattened(info.value_or(Dictionary()), shouldFlatten);
        if (!isAggregate) return appEventSource_.logEvent(*name, flat, KLVTimer::sharedTimer().timeAt(when), call);
        const auto event = aggregateEvent(*name, std::move(flat));
        event->setCall(call);
        processAggregateEventWithEvent(event);
        KLV_INFO("Aggregte event logged with name {}", *name);
      },
      HeldCalls::Kind::event);
}

void KLVController::setUserCustomInfo(KLVHostAttributes info) {
  setCustomInfo(std::move(info), true);
}

void KLVController::setSessionCustomInfo(KLVHostAttributes info) {
  setCustomInfo(std::move(info), false);
}

void KLVController::setCustomInfo(KLVHostAttributes info, bool isUser) {
  const auto call = KLVWaitingCall::admit(false);
  if (!call || !clean(info)) return;
  if (info.values && !info.values->empty()) {
    const auto kind = static_cast<std::uint8_t>(isUser ? Kind::userAttributes : Kind::sessionAttributes);
    call.record({kind, 0, Clock::now(), std::nullopt, &*info.values});
  }
  submit([this, info = std::move(info.values), isUser, call] {
    if (!info || info->empty()) {
      // Kept: the message is the same if the service allows collection.
      if (isUser) {
        KLV_ERROR("SDK not enabled - user attributes won't get logged");
      } else {
        KLV_ERROR("SDK not enabled - session attributes won't get logged");
      }
      return;
    }
    setAttributes({isUser, *info, call});
  });
}

void KLVController::setAttributes(const BufferedAttributes& call) {
  {
    const Lock lock(mutex_);
    if (!gate_.admitAttributes(call)) return;
  }
  if (call.isUser) {
    call.applyTo(*user());
    saveUserInfo({call.call});
  } else {
    const auto running = session();
    call.applyTo(*running);
    if (call.call.sequence() != 0) dataHandler()->saveSessionInfo(running, running->identifier(), {call.call});
  }
}

void KLVController::reportCustomError(std::optional<std::string> error, KLVHostAttributes info) {
  auto call = KLVWaitingCall::admit();
  if (!call || !cleanEvent(info)) return;
  const Date when = Clock::now();
  record(call, Kind::customError, when, error, info.values);
  submit(
      [this, error = std::move(error), info = std::move(info.values), when, call = std::move(call)] {
        if (!error) {
          countNameless();
          KLV_WARN("Improper observation reported");
          return;
        }
        observationSource_.logEvent(*error, info.value_or(Dictionary()), KLVTimer::sharedTimer().timeAt(when), call);
      },
      HeldCalls::Kind::event);
}

void KLVController::logDeviceToken(const Value& token) {
  Text text;
  if (const auto* bytes = token.get<Data>()) {
    text = KLVUtilities::stringWithDeviceToken(*bytes);
  } else if (const auto* given = token.get<std::string>()) {
    text = *given;
  } else {
    return runOrHold([] { KLV_WARN("Invalid token object!"); });
  }
  const auto call = KLVWaitingCall::uncounted();
  record(call, Kind::deviceToken, Clock::now(), text, std::nullopt);
  runOrHold([this, text, call] { verifyAndLogDeviceToken(text, call); });
}

void KLVController::verifyAndLogDeviceToken(const Text& token, const KLVWaitingCall& call) {
  if (KLVUtilities::isInvalidString(token)) {
    KLV_WARN("Invalid token data!");
    return;
  }
  std::shared_ptr<KLVDeviceInfo> device;
  {
    const Lock lock(mutex_);
    device = components_.deviceInfo;
    const bool stores = gate_.admitToken(*token, device != nullptr, call);
    // The record exists for a short time before collection is enabled. A token that is buffered then goes there, too.
    const bool isEarly = gate_.state() == CollectionGate::State::initialising;
    if (!stores && !isEarly) return;
  }
  if (device != nullptr) device->logDeviceToken(*token, call);
}

void KLVController::dispatchEvent(const std::shared_ptr<KLVEvent>& event) {
  if (event == nullptr) {
    KLV_WARN("event is nil");
    return;
  }
  if (!isCountedAtItsCall(event->eventType())) KLVLedger::shared().add(KLVLedgerEntry::logged);
  eventHandler_.enqueueEvent(event);
}

void KLVController::saveLifetimeEvent(const std::shared_ptr<KLVEvent>& event) {
  if (event == nullptr) {
    KLV_WARN("Event passed is nil");
    return;
  }
  Lock lock(mutex_);
  if (!gate_.admitCount(event)) return;
  const auto handler = components_.dataHandler;
  lock.unlock();
  if (event->eventType() == KLVEventType::app) return;  // counted with its row
  handler->upsertLifetimeEvent(event);
}

void KLVController::saveEvent(const std::shared_ptr<KLVEvent>& event) {
  if (event == nullptr) {
    KLV_WARN("Event passed is nil");
    return;
  }
  Lock lock(mutex_);
  if (!gate_.admitEvent(event)) return;
  const auto handler = components_.dataHandler;
  const auto running = components_.session;
  lock.unlock();  // the data handler makes the event's storage form, which takes time
  if (event->eventType() == KLVEventType::app) {
    handler->saveAndCountEvent(event, running->identifier());
  } else {
    handler->saveEventInfo(event, running->identifier());
  }
}

void KLVController::saveEvent(const std::shared_ptr<KLVEvent>& event, const std::optional<std::string>& sessionId) {
  if (event == nullptr || !sessionId) {
    KLV_WARN("Event/sessionId is nil");
    return;
  }
  KLVLedger::shared().add(KLVLedgerEntry::logged);
  Lock lock(mutex_);
  if (!gate_.admitEventUnbuffered()) return;
  const auto handler = components_.dataHandler;
  lock.unlock();
  handler->saveEventInfo(event, *sessionId);
}

}  // namespace kelvo
