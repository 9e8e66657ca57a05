#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "records/KLVInfo.h"

namespace kelvo {

/// The controller method that a user record calls. Thread: any.
class KLVUserDelegate {
 public:
  virtual void saveUserInfo() = 0;

 protected:
  ~KLVUserDelegate() = default;  // never deleted through this type
};

/// The host's user: an identifier and custom attributes. Thread-safe.
class KLVUser final : public KLVInfo {
 public:
  using KLVInfo::KLVInfo;
  [[nodiscard]] std::string_view className() const override { return "KLVUser"; }

  /// Returns the user in the content of its file: a storage form, or bare custom attributes. nullptr for nullopt.
  static std::shared_ptr<KLVUser> restored(const std::optional<Dictionary>& content);

  /// A user rebuilt from storage has no delegate until its adopter sets one. The delegate must outlive the user.
  void setDelegate(KLVUserDelegate* delegate) noexcept { delegate_.store(delegate); }

  /// Sets a custom attribute and asks the delegate to save the user. Ignores the null value.
  void setUserAttribute(Value value, std::string_view key);
  [[nodiscard]] Dictionary userAttributes() const { return customInfo(); }

 private:
  std::atomic<KLVUserDelegate*> delegate_{nullptr};
};

}  // namespace kelvo
