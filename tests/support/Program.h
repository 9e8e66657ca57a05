#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace kelvo::test {

/// A child process: its standard input is written by the test, its output goes to files. Killed when this dies.
class Program {
 public:
  using Environment = std::map<std::string, std::string>;  ///< added to this process's; an empty value unsets

  Program(const std::vector<std::string>& command, const Environment& environment);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void writeLine(const std::string& line);
  void closeInput();
  void kill(int signal);
  /// Waits for the end: the exit status, or the negative number of the signal that ended it.
  int wait();

  [[nodiscard]] pid_t id() const { return process_; }
  [[nodiscard]] std::string output() const;
  [[nodiscard]] std::string errors() const;
  /// Wait until the output or the errors contain `text`.
  [[nodiscard]] bool waitForOutput(const std::string& text) const { return waitFor(&Program::output, text); }
  [[nodiscard]] bool waitForError(const std::string& text) const { return waitFor(&Program::errors, text); }

 private:
  bool waitFor(std::string (Program::*text)() const, const std::string& part) const;

  std::string files_;  // path without ending
  pid_t process_ = -1;
  int input_ = -1;
};

}  // namespace kelvo::test
