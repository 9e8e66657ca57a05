#include "kelvo-service/Fingerprint.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string_view>
#include <vector>

namespace kelvo::service {
namespace {

constexpr std::uint64_t kOffsetBasis = 0xcbf29ce484222325U;
constexpr std::uint64_t kPrime = 0x100000001b3U;

/// FNV-1a, 64 bits.
class Hash {
 public:
  void mix(std::string_view bytes) noexcept {
    for (const char byte : bytes) state_ = (state_ ^ static_cast<unsigned char>(byte)) * kPrime;
  }

  void add(const Value& value) {
    if (const auto* dictionary = value.get<Dictionary>()) {
      addMembers(*dictionary);
    } else if (const auto* array = value.get<Array>()) {
      mix("[");
      for (const Value& element : *array) add(element);
      mix("]");
    } else if (const auto* text = value.get<std::string>()) {
      addText(*text);
    } else {
      mix("#");
      mix(description(value));
      mix(";");
    }
  }

  [[nodiscard]] std::uint64_t state() const noexcept { return state_; }

 private:
  void addText(const std::string& text) {
    mix("\"");
    mix(std::to_string(text.size()));
    mix(":");
    mix(text);
  }

  void addMembers(const Dictionary& dictionary) {
    std::vector<const Dictionary::Entry*> members;
    members.reserve(dictionary.size());
    for (const auto& entry : dictionary) members.push_back(&entry);
    std::sort(members.begin(), members.end(), [](const auto* a, const auto* b) { return a->first < b->first; });
    mix("{");
    for (const auto* member : members) {
      addText(member->first);
      add(member->second);
    }
    mix("}");
  }

  std::uint64_t state_ = kOffsetBasis;
};

}  // namespace

std::string fingerprint(const Value& value) {
  Hash hash;
  hash.add(value);
  char digits[16 + 1];
  std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(hash.state()));
  return digits;
}

}  // namespace kelvo::service
