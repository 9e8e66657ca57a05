#pragma once

#include <atomic>

#include "kelvo/Log.h"

namespace kelvo {

/// Decides which log lines are written, and whether they carry the host's data. The environment overrides the host's
/// choice, and the host's choice overrides the service's. Thread-safe.
class KLVLogRules {
 public:
  /// Takes the environment's choice, the value of KELVO_LOG; nullptr or "" is none. Returns false, without an effect,
  /// for an unknown word. Called once, before all others.
  bool obey(const char* environment) noexcept;

  /// Takes the service's choice: lines below `lowest` are not written, except INFO lines, which are always written.
  /// Returns false, without an effect, if the environment or the host has chosen.
  bool serve(LogLevel lowest) noexcept;
  /// Takes the host's choice: lines below `lowest` are not written. Has no effect if the environment has chosen.
  void choose(LogLevel lowest) noexcept;

  [[nodiscard]] bool writes(LogLevel level) const noexcept {
    return (written_.load(std::memory_order_relaxed) & bit(level)) != 0;
  }
  /// Returns true until the environment or the host has chosen, and if that choice is `debug`.
  [[nodiscard]] bool carriesHostData() const noexcept {
    return (written_.load(std::memory_order_relaxed) & (kChosen | bit(LogLevel::debug))) != kChosen;
  }

 private:
  static constexpr unsigned bit(LogLevel level) noexcept { return 1U << static_cast<unsigned>(level); }
  static constexpr unsigned kChosen = 1U << 8;      // by the host or the environment
  static constexpr unsigned kUnchanging = 1U << 9;  // by the environment

  // One bit for each level that is written, and the two bits above. The process starts with `debug`.
  std::atomic<unsigned> written_{bit(LogLevel::off) - 1};
};

}  // namespace kelvo
