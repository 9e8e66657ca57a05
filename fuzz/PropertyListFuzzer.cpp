// Fuzzes the reader of property lists: user defaults, Info.plist, and the provisioning profile inside its signature.

#include "FuzzingInSilence.h"
#include "platform/PropertyList.h"
#include "util/KLVMobileProvision.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace kelvo;
  const std::string text(reinterpret_cast<const char*>(bytes), size);
  const auto profile = KLVMobileProvision::profileIn(text);
  const auto mode = KLVMobileProvision::releaseModeOf(profile);
  fuzz::require(mode != KLVMobileProvision::ReleaseMode::unknown, "every profile has a release mode");
  for (const auto& value : {parsePropertyList(text), profile ? std::optional<Value>(*profile) : std::nullopt}) {
    if (!value) continue;
    fuzz::callEveryConversion(*value);
    const auto* content = value->get<Dictionary>();
    if (content == nullptr) continue;
    const std::string written = serialisePropertyList(*content);
    const auto again = parsePropertyList(written);
    fuzz::require(again.has_value() && again->get<Dictionary>() != nullptr, "a written property list can be read");
    fuzz::require(again->get<Dictionary>()->size() <= content->size(), "the reader adds no entry");
  }
  return 0;
}
