#include "Usage.h"

#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>

namespace kelvo::bench {
namespace {

/// Returns the ticks of `process` and, if it is the `first` of its group, of all its children, ended ones included.
double ticks(pid_t process, bool isFirst) {
  const std::string directory = "/proc/" + std::to_string(process);
  std::ifstream file(directory + "/stat");
  std::string text((std::istreambuf_iterator<char>(file)), {});
  const auto nameEnd = text.rfind(')');
  if (nameEnd == std::string::npos) return 0;
  std::istringstream fields(text.substr(nameEnd + 1));
  std::string skipped;
  for (int i = 0; i < 11; ++i) fields >> skipped;
  double user = 0, system = 0, endedUser = 0, endedSystem = 0;
  fields >> user >> system >> endedUser >> endedSystem;
  double sum = user + system;
  if (!isFirst) return sum;
  sum += endedUser + endedSystem;
  std::ifstream children(directory + "/task/" + std::to_string(process) + "/children");
  for (pid_t child = 0; children >> child;) sum += ticks(child, false);
  return sum;
}

}  // namespace

void Usage::watch(const std::string& name, const std::vector<pid_t>& processes) {
  auto& group = groups_[name];
  group.insert(group.end(), processes.begin(), processes.end());
}

std::map<std::string, double> Usage::seconds() const {
  const auto perSecond = static_cast<double>(sysconf(_SC_CLK_TCK));
  std::map<std::string, double> result;
  for (const auto& [name, processes] : groups_) {
    for (const pid_t process : processes) result[name] += ticks(process, true) / perSecond;
  }
  return result;
}

}  // namespace kelvo::bench
