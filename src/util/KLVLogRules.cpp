#include "util/KLVLogRules.h"

#include <string_view>
#include <utility>

namespace kelvo {
namespace {

/// Returns one bit for each level from `lowest` to ERROR; 0 for `off`.
constexpr unsigned bitsFrom(LogLevel lowest) noexcept {
  const unsigned all = (1U << static_cast<unsigned>(LogLevel::off)) - 1;
  return all & ~((1U << static_cast<unsigned>(lowest)) - 1);
}

}  // namespace

bool KLVLogRules::obey(const char* environment) noexcept {
  constexpr std::pair<std::string_view, LogLevel> kWords[] = {{"off", LogLevel::off},
                                                              {"error", LogLevel::error},
                                                              {"warn", LogLevel::warn},
                                                              {"info", LogLevel::info},
                                                              {"debug", LogLevel::debug}};
  if (environment == nullptr || *environment == '\0') return true;
  for (const auto& [word, level] : kWords) {
    if (word != environment) continue;
    written_ = bitsFrom(level) | kChosen | kUnchanging;
    return true;
  }
  return false;
}

bool KLVLogRules::serve(LogLevel lowest) noexcept {
  unsigned before = written_.load(std::memory_order_relaxed);
  const unsigned after = bitsFrom(lowest) | bit(LogLevel::info);
  while ((before & kChosen) == 0) {
    if (written_.compare_exchange_weak(before, after, std::memory_order_relaxed)) return true;
  }
  return false;
}

void KLVLogRules::choose(LogLevel lowest) noexcept {
  unsigned before = written_.load(std::memory_order_relaxed);
  const unsigned after = bitsFrom(lowest) | kChosen;
  while ((before & kUnchanging) == 0) {
    if (written_.compare_exchange_weak(before, after, std::memory_order_relaxed)) return;
  }
}

}  // namespace kelvo
