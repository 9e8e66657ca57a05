#pragma once

#include "kelvo/Value.h"

namespace kelvo {

/// Returns every kind of data that this build sends or stores, as `KelvoSDK::describeData` documents. Thread: any.
Dictionary dataDescription();

}  // namespace kelvo
