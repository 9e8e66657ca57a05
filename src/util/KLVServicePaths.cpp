#include "util/KLVServicePaths.h"

namespace kelvo {

std::string byReplacing(std::string_view text, std::string_view placeholder, std::string_view value) {
  if (placeholder.empty()) return std::string(text);
  std::string result;
  for (;;) {
    const auto found = text.find(placeholder);
    result += text.substr(0, found);
    if (found == std::string_view::npos) return result;
    result += value;
    text.remove_prefix(found + placeholder.size());
  }
}

}  // namespace kelvo
