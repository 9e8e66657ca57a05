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

/// Returns a call for its ticket. The journal does not keep one without a text: it is refused.
KLVCallRecord recordOf(Kind kind, const std::optional<std::string>& text, const KLVHostAttributes& info = {},
                       bool shouldFlatten = false) {
  const std::uint8_t flags = shouldFlatten ? kKLVJournalFlattens : 0;
  const auto kept = text ? static_cast<std::uint8_t>(kind) : std::uint8_t{0};
  return {kept, flags, Clock::now(), text, info.values ? &*info.values : nullptr};
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

/// Cleans and admits the call of an event, which the ledger counts. Returns a ticket of no call if it is refused.
KLVWaitingCall admitEvent(Kind kind, const std::optional<std::string>& name, KLVHostAttributes& info,
                          bool shouldFlatten = false) {
  if (!clean(info)) {
    KLVLedger::shared().refuse(KLVLedgerEntry::refusedUncleanable);
    return {};
  }
  auto call = KLVWaitingCall::admit(recordOf(kind, name, info, shouldFlatten));
  if (call) KLVLedger::shared().add(KLVLedgerEntry::logged);
  return call;
}

void countNameless() {
  KLVLedger::shared().add(KLVLedgerEntry::refusedNameless);
}

/// Returns whether an event of this type counts as logged when the host calls. Others do when they are dispatched.
bool isCountedAtItsCall(KLVEventType type) {
  return type == KLVEventType::app || type == KLVEventType::client || type == KLVEventType::customError;
}

}  // namespace

void KLVController::setUserIdentifier(const std::optional<std::string>& identifier) {
  if (!identifier) {
    KLV_ERROR("Identifier passed is nil");
    return;
  }
  auto call = KLVWaitingCall::uncounted(recordOf(Kind::userIdentifier, identifier));
  if (!call) return;
  submit([this, call = std::move(call)] {
    const auto state = gateState();
    const bool isEarly = state == CollectionGate::State::idle || state == CollectionGate::State::initialising;
    if (state == CollectionGate::State::running || (isEarly && KLVDeliveryRules::current().keepsEarlyUserIdentifier)) {
      setAttributes({true, {{"custom_user_id", call.text()}}, call});
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
  auto call = KLVWaitingCall::admit(recordOf(Kind::screen, title));
  if (!call) return;
  submit([this, call = std::move(call)] { navigationMonitor_->logScreenWithName(*call.text(), call.time(), call); },
         HeldCalls::Kind::namedScreen);
}

/// Blocks while many events wait to be classified or stored: a call that waits takes less memory than its event.
void KLVController::waitForEarlierEvents() {
  eventHandler_.catchUp();
  if (const auto handler = dataHandler()) handler->catchUp();
}

void KLVController::logClientEventWithName(const std::optional<std::string>& name, KLVHostAttributes info,
                                           bool shouldFlatten) {
  auto call = admitEvent(Kind::clientEvent, name, info, shouldFlatten);
  if (!call) return;
  submit(
      [this, shouldFlatten, call = std::move(call)] {
        waitForEarlierEvents();
        const auto text = call.text();
        if (!text) {
          countNameless();
          KLV_WARN("Improper app event logged");
          return;
        }
        clientEventSource_.logEvent(*text, flattened(call.attributes(), shouldFlatten), std::nullopt, call);
      },
      HeldCalls::Kind::event);
}

void KLVController::logAppEventWithName(const std::optional<std::string>& name, KLVHostAttributes info,
                                        bool shouldFlatten, bool isAggregate) {
  auto call = admitEvent(isAggregate ? Kind::aggregateEvent : Kind::appEvent, name, info, shouldFlatten);
  if (!call) return;
  submit(
      [this, shouldFlatten, isAggregate, call = std::move(call)] {
        waitForEarlierEvents();
        const pool::ShortTask shortTask;
        const auto text = call.text();
        if (!text) {
          countNameless();
          KLV_WARN("Improper app event logged");
          return;
        }
        Dictionary flat = flattened(call.attributes(), shouldFlatten);
        const std::int64_t time = KLVTimer::sharedTimer().timeAt(call.time());
        if (!isAggregate) return appEventSource_.logEvent(*text, flat, time, call);
        const auto event = aggregateEvent(*text, std::move(flat));
        event->setCall(call);
        processAggregateEventWithEvent(event);
        KLV_INFO("Aggregte event logged with name {}", *text);
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
  if (!clean(info)) return;
  const bool isEmpty = !info.values || info.values->empty();
  const auto kind =
      isEmpty ? std::uint8_t{0} : static_cast<std::uint8_t>(isUser ? Kind::userAttributes : Kind::sessionAttributes);
  auto call = KLVWaitingCall::admit({kind, 0, Clock::now(), std::nullopt, isEmpty ? nullptr : &*info.values}, false);
  if (!call) return;
  submit([this, isUser, call = std::move(call)] {
    auto attributes = call.attributes();
    if (attributes.empty()) {
      // Kept: the message is the same if the service allows collection.
      if (isUser) {
        KLV_ERROR("SDK not enabled - user attributes won't get logged");
      } else {
        KLV_ERROR("SDK not enabled - session attributes won't get logged");
      }
      return;
    }
    setAttributes({isUser, std::move(attributes), call});
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

void KLVController::reportCustomError(const std::optional<std::string>& error, KLVHostAttributes info) {
  auto call = admitEvent(Kind::customError, error, info);
  if (!call) return;
  submit(
      [this, call = std::move(call)] {
        waitForEarlierEvents();
        const auto text = call.text();
        if (!text) {
          countNameless();
          KLV_WARN("Improper observation reported");
          return;
        }
        observationSource_.logEvent(*text, call.attributes(), KLVTimer::sharedTimer().timeAt(call.time()), call);
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
  runOrHold([this, call = KLVWaitingCall::uncounted(recordOf(Kind::deviceToken, text))] {
    verifyAndLogDeviceToken(call.text(), call);
  });
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
