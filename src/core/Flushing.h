#pragma once

#include <chrono>
#include <functional>

#include "kelvo/Flush.h"

namespace kelvo {

/// The work of `KelvoSDK::flush` and `KelvoSDK::flushAndWait`. Not for forked children.
namespace Flushing {

/// Calls `callback` once, on any thread of the library.
void begin(std::chrono::milliseconds deadline, std::function<void(const FlushResult&)> callback);
FlushResult wait(std::chrono::milliseconds deadline);

}  // namespace Flushing
}  // namespace kelvo
