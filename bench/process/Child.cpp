#include "process/Child.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include "process/Measuring.h"

extern char** environ;  // NOLINT: POSIX's own

namespace kelvo::bench {
namespace {

constexpr int kSamplingMilliseconds = 5;

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> all;
  for (auto& text : texts) all.push_back(text.data());
  all.push_back(nullptr);
  return all;
}

}  // namespace

Child::Child(const std::vector<std::string>& command, const std::map<std::string, std::string>& variables) {
  std::array<int, 2> pipe{};
  if (::pipe2(pipe.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);

  auto arguments = command;
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
  for (const auto& [name, value] : variables) environment.push_back(name + "=" + value);
  const int error = posix_spawn(&process_, arguments[0].c_str(), &actions, nullptr, pointers(arguments).data(),
                                pointers(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipe[1]);
  output_ = pipe[0];
  if (error != 0) throw std::runtime_error("cannot start " + command[0]);
}

Child::~Child() {
  ::close(output_);
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
}

std::string Child::readLine() {
  for (;;) {
    const auto end = read_.find('\n');
    if (end != std::string::npos) {
      const std::string line = read_.substr(0, end);
      read_.erase(0, end + 1);
      return line;
    }
    std::array<char, 4096> buffer{};
    const ssize_t count = ::read(output_, buffer.data(), buffer.size());
    if (count <= 0) return {};
    read_.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

std::map<std::string, double> Child::readFigures(double* peak) {
  std::map<std::string, double> figures;
  for (;;) {
    pollfd ready{output_, POLLIN, 0};
    while (peak != nullptr && ::poll(&ready, 1, kSamplingMilliseconds) == 0) {
      const PrivateMemory now = privateMemory(process_);
      *peak = std::max(*peak, static_cast<double>(now.clean + now.dirty));
    }
    const std::string line = readLine();
    const auto blank = line.find(' ');
    if (line.empty()) return figures;
    if (blank == std::string::npos) throw std::runtime_error("not a figure: " + line);
    figures[line.substr(0, blank)] = std::strtod(line.c_str() + blank + 1, nullptr);
  }
}

}  // namespace kelvo::bench
