#include "kelvo-events/Places.h"

#include <algorithm>

namespace kelvo::registry {

Position positionOf(std::string_view text, std::size_t offset) {
  const std::string_view before = text.substr(0, offset);
  const auto lines = std::count(before.begin(), before.end(), '\n');
  const std::size_t begin = before.rfind('\n') + 1;  // 0 if there is none
  return {static_cast<std::size_t>(lines) + 1, before.size() - begin + 1};
}

Places::Places(std::string_view text) : text_(text) {
  service::JSONScanner scanner(text);
  offsets_[""] = scanner.position();
  walk(scanner, "");
}

void Places::walk(service::JSONScanner& scanner, const std::string& path) {
  if (scanner.startsWith('{')) {
    scanner.members([&](const std::string& name, const service::Span& key) {
      const std::string member = path.empty() ? name : path + "." + name;
      if (!offsets_.emplace(member, key.position).second) repeated_.push_back(member);
      offsets_[member] = key.position;
      walk(scanner, member);
    });
  } else if (scanner.startsWith('[')) {
    std::size_t index = 0;
    scanner.elements([&] {
      const std::string element = path + "[" + std::to_string(index++) + "]";
      offsets_[element] = scanner.position();
      walk(scanner, element);
    });
  } else {
    scanner.value();
  }
}

Position Places::of(std::string path) const {
  auto found = offsets_.find(path);
  while (found == offsets_.end()) {
    path.resize(path.find_last_of(".[") == std::string::npos ? 0 : path.find_last_of(".["));
    found = offsets_.find(path);
  }
  return positionOf(text_, found->second);
}

}  // namespace kelvo::registry
