#pragma once

#include <atomic>
#include <string>

#include "records/KLVInfo.h"

namespace kelvo {

/// What a user record asks of the controller.
class KLVUserDelegate {
 public:
  virtual void saveUserInfo() = 0;

 protected:
  ~KLVUserDelegate() = default;  // never deleted through this type
};

/// The host's user: custom attributes only.
class KLVUser final : public KLVInfo {
 public:
  using KLVInfo::KLVInfo;
  [[nodiscard]] std::string_view className() const override { return "KLVUser"; }

  /// A user rebuilt from storage has no delegate until its adopter sets one.
  void setDelegate(KLVUserDelegate* delegate) noexcept { delegate_.store(delegate); }

  /// Sets a custom attribute and has the user saved; the null value is ignored.
  void setUserAttribute(Value value, std::string_view key);
  [[nodiscard]] Dictionary userAttributes() const { return customInfo(); }

 private:
  std::atomic<KLVUserDelegate*> delegate_{nullptr};
};

}  // namespace kelvo
