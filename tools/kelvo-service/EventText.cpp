#include "kelvo-service/EventText.h"

namespace kelvo::service {
namespace {

/// Consumes one value. Returns the spans of its elements if it is a list, else nothing.
std::vector<Span> elementsOf(JSONScanner& scanner) {
  std::vector<Span> found;
  if (scanner.startsWith('[')) {
    scanner.elements([&] { found.push_back(scanner.value()); });
  } else {
    scanner.value();
  }
  return found;
}

}  // namespace

std::map<std::string, std::vector<Span>> elementsOfChunk(std::string_view chunk) {
  std::map<std::string, std::vector<Span>> lists;
  JSONScanner scanner(chunk);
  scanner.members([&](const std::string& part, const Span&) {
    if (part != "chunk_details" || !scanner.startsWith('{')) {
      scanner.value();
      return;
    }
    lists.clear();
    scanner.members([&](const std::string& list, const Span&) { lists[list] = elementsOf(scanner); });
  });
  return lists;
}

}  // namespace kelvo::service
