#pragma once

#include <exception>
#include <utility>

#include "platform/Thread.h"
#include "util/KLVLogger.h"

namespace kelvo {

/// Runs one call of the host. Nothing leaves it: what it throws is logged, and in a forked child it does nothing.
template <class Call>
void guarded(Call&& call) noexcept {
  if (inForkedChild()) return;
  try {
    try {
      std::forward<Call>(call)();
    } catch (const std::exception& fault) {
      KLV_ERROR("{}", fault.what());
    }
  } catch (...) {  // no memory left for the line either
  }
}

}  // namespace kelvo
