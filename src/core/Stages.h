#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace kelvo {

/// One step of a wait: waits for one queue or component, then calls `next` once, on any thread. A stage that drops
/// `next` ends the wait: no later stage runs.
using Stage = std::function<void(std::function<void()> next)>;

/// Runs `stages` in order: each one starts when the stage before calls its `next`. Returns at once, unless a stage
/// blocks. The thread of a stage is the thread on which the stage before called `next`.
inline void runStages(const std::shared_ptr<const std::vector<Stage>>& stages, std::size_t first = 0) {
  if (first == stages->size()) return;
  (*stages)[first]([stages, first] { runStages(stages, first + 1); });
}

}  // namespace kelvo
