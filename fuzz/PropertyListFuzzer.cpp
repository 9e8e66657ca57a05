// Property lists: the user defaults, the bundle's description, and the provisioning profile amid its signature.

#include "Fuzzing.h"
#include "platform/PropertyList.h"
#include "util/KLVMobileProvision.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kelvo::fuzz::beQuiet();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace kelvo;
  const std::string text(reinterpret_cast<const char*>(bytes), size);
  const auto profile = KLVMobileProvision::profileIn(text);
  const auto mode = KLVMobileProvision::releaseModeOf(profile);
  fuzz::require(mode != KLVMobileProvision::ReleaseMode::unknown, "every profile has a release mode");
  for (const auto& value : {parsePropertyList(text), profile ? std::optional<Value>(*profile) : std::nullopt}) {
    if (!value) continue;
    fuzz::askEverythingOf(*value);
    const auto* content = value->get<Dictionary>();
    if (content == nullptr) continue;
    const std::string written = serialisePropertyList(*content);
    const auto again = parsePropertyList(written);
    fuzz::require(again.has_value() && again->get<Dictionary>() != nullptr, "what is written can be read");
    fuzz::require(again->get<Dictionary>()->size() <= content->size(), "nothing is read that was not written");
  }
  return 0;
}
