#pragma once

#include <string>

#include "records/KLVInfo.h"

namespace kelvo {

/// The host application: name, version, bundle id, release mode, installation time, all read from its bundle when
/// the record is made. The identifier given to the constructor is replaced by the application's name.
class KLVAppInfo final : public KLVInfo {
 public:
  explicit KLVAppInfo(std::string identifier);
  [[nodiscard]] std::string_view className() const override { return "KLVAppInfo"; }
};

}  // namespace kelvo
