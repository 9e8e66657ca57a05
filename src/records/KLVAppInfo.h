#pragma once

#include <string>

#include "records/KLVInfo.h"

namespace kelvo {

/// The host: name, version, bundle id, release mode and installation time. The constructor reads them from the bundle
/// and uses the host's name as the identifier; it ignores its argument.
class KLVAppInfo final : public KLVInfo {
 public:
  explicit KLVAppInfo(std::string identifier);
  [[nodiscard]] std::string_view className() const override { return "KLVAppInfo"; }
};

}  // namespace kelvo
