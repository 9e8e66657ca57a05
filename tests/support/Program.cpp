#include "support/Program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <stdexcept>

#include "support/Eventually.h"
#include "support/TestHome.h"

extern char** environ;  // NOLINT: POSIX's own

namespace kelvo::test {
namespace {

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> all;
  for (auto& text : texts) all.push_back(text.data());
  all.push_back(nullptr);
  return all;
}

std::vector<std::string> merged(Program::Environment changes) {
  std::vector<std::string> all;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (changes.count(text.substr(0, text.find('='))) == 0) all.push_back(text);
  }
  for (const auto& [name, value] : changes) {
    if (!value.empty()) all.push_back(name + "=" + value);
  }
  return all;
}

}  // namespace

Program::Program(const std::vector<std::string>& command, const Environment& environment) {
  static std::atomic<int> number{0};
  std::signal(SIGPIPE, SIG_IGN);  // a killed child leaves a broken pipe
  files_ = home() + "/program-" + std::to_string(++number);
  std::array<int, 2> pipe{};
  if (::pipe2(pipe.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe[0], STDIN_FILENO);
  const int flags = O_WRONLY | O_CREAT | O_TRUNC;
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, (files_ + ".out").c_str(), flags, 0600);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (files_ + ".err").c_str(), flags, 0600);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);

  auto arguments = command;
  auto variables = merged(environment);
  const int error = posix_spawn(&process_, arguments[0].c_str(), &actions, &attributes, pointers(arguments).data(),
                                pointers(variables).data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  ::close(pipe[0]);
  input_ = pipe[1];
  if (error != 0) throw std::runtime_error("cannot start " + command[0]);
}

Program::~Program() {
  closeInput();
  if (process_ < 0) return;
  kill(SIGKILL);
  wait();
}

void Program::writeLine(const std::string& line) {
  const std::string text = line + "\n";
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t now = ::write(input_, text.data() + written, text.size() - written);
    if (now <= 0) return;  // the child is gone
    written += static_cast<std::size_t>(now);
  }
}

void Program::closeInput() {
  if (input_ >= 0) ::close(input_);
  input_ = -1;
}

void Program::kill(int signal) {
  if (process_ > 0) ::kill(process_, signal);
}

int Program::wait() {
  int status = 0;
  ::waitpid(process_, &status, 0);
  process_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string Program::output() const {
  return contentOf(files_ + ".out");
}

std::string Program::errors() const {
  return contentOf(files_ + ".err");
}

bool Program::waitFor(std::string (Program::*text)() const, const std::string& part) const {
  return eventually([&] { return (this->*text)().find(part) != std::string::npos; });
}

}  // namespace kelvo::test
