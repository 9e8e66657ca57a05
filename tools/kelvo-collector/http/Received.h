#pragma once

#include "kelvo-collector/store/Store.h"
#include "kelvo-service/Service.h"

namespace httplib {
struct Request;
}

namespace kelvo::collector {

/// Returns the request as the store keeps it: as it arrived now, with its headers and the device that its query or its
/// body names. `decoded` is the same request, decoded.
[[nodiscard]] ReceivedRequest received(const httplib::Request& request, const service::Request& decoded);

}  // namespace kelvo::collector
