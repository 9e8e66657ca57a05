// Fuzzes the file of the user defaults: a start reads it, changes it, and the next start reads it again.

#include <filesystem>

#include "FuzzingInHome.h"
#include "platform/Directories.h"
#include "platform/Files.h"
#include "platform/PropertyList.h"
#include "platform/UserDefaults.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace kelvo;
  const std::string text(reinterpret_cast<const char*>(bytes), size);
  static const std::string path = Directories::inLibrary("defaults.plist");
  std::filesystem::remove(path + ".corrupt");
  fuzz::require(writeFileAtomically(path, text), "the file can be written");
  const auto parsed = parsePropertyList(text);
  const auto content = parsed ? parsed->asDictionary() : std::nullopt;

  UserDefaults defaults(path);
  defaults.set("klv_added", "by the library");
  fuzz::require(defaults.synchronize(), "the defaults can be written");
  fuzz::require(fileExists(path + ".corrupt") == !content, "a file is set aside if and only if it is no property list");
  if (!content) fuzz::require(readFile(path + ".corrupt") == text, "the file that is set aside is unchanged");

  const UserDefaults next(path);
  fuzz::require(next.string("klv_added") == "by the library", "a change is in the file");
  for (const auto& [key, value] : content.value_or(Dictionary())) {
    fuzz::callEveryConversion(value);
    // Integers survive, and texts, up to a null character. Other values may have no form in the file, such as NaN.
    const auto* kept = value.get<std::string>();
    if (key == "klv_added" || (kept == nullptr && !value.isInteger())) continue;
    if (key.find('\0') != key.npos || (kept != nullptr && kept->find('\0') != kept->npos)) continue;
    fuzz::require(next.string(key) == defaults.string(key), "an entry of the file survives a start");
    fuzz::require(next.boolean(key) == defaults.boolean(key), "an entry reads as the same switch");
  }
  return 0;
}
