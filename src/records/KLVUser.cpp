#include "records/KLVUser.h"

namespace kelvo {

void KLVUser::setUserAttribute(Value value, std::string_view key) {
  if (value.isNull()) return;
  setCustomInfo(std::move(value), key);
  if (KLVUserDelegate* delegate = delegate_.load()) delegate->saveUserInfo();
}

}  // namespace kelvo
