#include "records/KLVUser.h"

namespace kelvo {

std::shared_ptr<KLVUser> KLVUser::restored(const std::optional<Dictionary>& content) {
  if (!content || content->contains(kKLVAdditionalInfo)) return objectFromJsonDict<KLVUser>(content);
  auto user = std::make_shared<KLVUser>(std::string());
  if (!content->empty()) user->setCustomInfo(*content);
  return user;
}

void KLVUser::setUserAttribute(Value value, std::string_view key) {
  if (value.isNull()) return;
  setCustomInfo(std::move(value), key);
  if (KLVUserDelegate* delegate = delegate_.load()) delegate->saveUserInfo();
}

}  // namespace kelvo
