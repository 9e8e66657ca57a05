#pragma once

#include <exception>
#include <utility>

#include "platform/Thread.h"
#include "util/KLVLogger.h"

namespace kelvo {

/// Runs one host call. Logs an exception instead of letting it reach the host. Does nothing in a forked child.
template <class Call>
void guarded(Call&& call) noexcept {
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

}  // namespace kelvo
