#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace kelvo::bench {

/// Reads the CPU time of named groups of processes, with the processes that they have started.
class Usage {
 public:
  /// Adds `processes` to the group `name`.
  void watch(const std::string& name, const std::vector<pid_t>& processes);
  /// Returns the CPU seconds of each group so far. A process that ended counts with its parent's ended children.
  [[nodiscard]] std::map<std::string, double> seconds() const;

 private:
  std::map<std::string, std::vector<pid_t>> groups_;
};

}  // namespace kelvo::bench
