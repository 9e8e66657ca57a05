// Fuzzes the Info.plist of a bundle, and what the library reads from it.

#include <filesystem>

#include "FuzzingInHome.h"
#include "network/HTTPURL.h"
#include "platform/Bundle.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/PropertyList.h"
#include "util/KLVDeliveryRules.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace kelvo;
  const std::string text(reinterpret_cast<const char*>(bytes), size);
  static const std::string directory = Directories::library();
  fuzz::require(writeFileAtomically(directory + "/Info.plist", text), "the file can be written");
  const Bundle bundle(directory, "program");
  const auto parsed = parsePropertyList(text);
  const auto expected = parsed ? parsed->asDictionary().value_or(Dictionary()) : Dictionary();
  fuzz::require(jsonText(bundle.infoDictionary()) == jsonText(expected), "the bundle holds the file's dictionary");

  const std::string& name = bundle.storageName();
  const bool isFileName = !name.empty() && name != "." && name != ".." && name.size() < 250 &&
                          name.find('/') == name.npos && name.find('\0') == name.npos;
  fuzz::require(isFileName, "the storage name is the name of a file");
  for (const auto& [key, value] : bundle.infoDictionary()) {
    fuzz::callEveryConversion(value);
    const auto* setting = value.get<std::string>();
    if (setting == nullptr) continue;
    if (const auto url = HTTPURL::parse(*setting)) static_cast<void>(url->exposesCleartext());
    static_cast<void>(KLVDeliveryRules::named(*setting));
  }
  return 0;
}
