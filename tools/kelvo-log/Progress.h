#pragma once

#include <chrono>
#include <cstddef>

namespace kelvo::log {

/// One line on a terminal that is rewritten as lines are played and chunks are accepted. Writes nothing if standard
/// error is no terminal.
class Progress {
 public:
  explicit Progress(bool isQuiet);
  /// Removes the line.
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  [[nodiscard]] bool isShown() const noexcept { return isShown_; }
  void linePlayed();
  /// Rewrites the line, a few times per second at most.
  void show();
  /// Removes the line, so that other text can follow.
  void clear();

 private:
  using Clock = std::chrono::steady_clock;

  const bool isShown_;
  bool isVisible_ = false;
  std::size_t lines_ = 0;
  const Clock::time_point start_ = Clock::now();
  Clock::time_point latest_{};
};

}  // namespace kelvo::log
