#include "util/KLVUtilities+Counts.h"

#include <fmt/format.h>

namespace kelvo {
namespace {

constexpr std::int64_t kFirstWithTens = 10;
constexpr std::int64_t kFirstWithHundreds = 100;
constexpr std::int64_t kLastWithHundreds = 1000;

}  // namespace

std::string KLVUtilities::rangeForCount(std::int64_t count) {
  if (count > kLastWithHundreds) return "1000+";
  if (count == kLastWithHundreds) return "901-1000";
  if (count >= kFirstWithHundreds) {
    const std::int64_t hundreds = (count - 1) / 100;
    return fmt::format("{}01-{}00", hundreds, hundreds + 1);
  }
  if (count >= kFirstWithTens) {
    const std::int64_t tens = (count - 1) / 10;
    return fmt::format("{}1-{}0", tens, tens + 1);
  }
  return fmt::format("{}", count);
}

std::string KLVUtilities::numberOf(std::uint64_t count, const char* noun) {
  return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

}  // namespace kelvo
