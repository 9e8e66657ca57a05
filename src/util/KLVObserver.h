#pragma once

#include "util/KLVCallJournal.h"

namespace kelvo {

class KLVInfo;

/// Tells the test kit of each host call. Only the build for tests has an observer; the product has no code for it.
namespace observer {

#ifdef KELVO_TESTING
/// The host has made this call. Thread: the caller's.
void called(const KLVCallRecord& record) noexcept;
/// The current screen is now the one of this event. Thread: the navigation monitor's queue.
void entered(const KLVInfo& screen);
#else
inline void called(const KLVCallRecord&) noexcept {}
inline void entered(const KLVInfo&) noexcept {}
#endif

}  // namespace observer
}  // namespace kelvo
