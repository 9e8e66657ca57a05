#pragma once

#include <exception>
#include <utility>

#include "platform/Privileges.h"
#include "platform/SwitchedOff.h"
#include "platform/Thread.h"
#include "util/KLVLedger.h"
#include "util/KLVLogger.h"

namespace kelvo {

/// Runs `call`. Logs an exception instead of letting it reach the host. Does nothing in a forked child.
template <class Call>
void guardedAlways(Call&& call) noexcept {
  if (inForkedChild()) return;
  try {
    try {
      std::forward<Call>(call)();
    } catch (const std::exception& fault) {
      KLV_ERROR("{}", fault.what());
    }
  } catch (...) {  // there may be no memory left for the log line
  }
}

/// Returns whether the library must do nothing in this process: for the program's rights, or because it is switched off
/// on this machine.
inline bool isForbidden() {
  return isRefusedForItsRights() || SwitchedOff::reason().has_value();
}

/// The same for a call that collects, sends or asks for data: does nothing where the library is forbidden.
template <class Call>
void guarded(Call&& call) noexcept {
  guardedAlways([&] {
    if (!isForbidden()) std::forward<Call>(call)();
  });
}

/// The same for a call that logs an event. The ledger counts it where the library is forbidden.
template <class Call>
void guardedEvent(Call&& call) noexcept {
  guardedAlways([&] {
    isForbidden() ? KLVLedger::shared().refuse(KLVLedgerEntry::refusedDisabled) : std::forward<Call>(call)();
  });
}

}  // namespace kelvo
