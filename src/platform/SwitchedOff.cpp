#include "platform/SwitchedOff.h"

#include <cstdlib>
#include <string_view>
#include <utility>

#include "platform/Files.h"
#include "platform/Immortal.h"

namespace kelvo {
namespace {

std::string& file() {
  static Immortal<std::string> path(SwitchedOff::kFile);
  return *path;
}

std::optional<std::string> findReason() {
  // Not `secure_getenv`: a user's wish counts in every program.
  const char* wish = std::getenv("DO_NOT_TRACK");
  if (const std::string_view value = wish != nullptr ? wish : ""; !value.empty() && value != "0") {
    return "DO_NOT_TRACK is set in the environment";
  }
  if (fileExists(file())) return "The file " + file() + " switches Kelvo off for every program";
  return std::nullopt;
}

}  // namespace

const std::optional<std::string>& SwitchedOff::reason() {
  static Immortal<std::optional<std::string>> found(findReason());
  return *found;
}

void SwitchedOff::setFile(std::string path) {
  file() = std::move(path);
}

}  // namespace kelvo
