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

  [[nodiscard]] std::string output() const;
  [[nodiscard]] std::string errors() const;
  /// Waits until the errors contain `text`.
  [[nodiscard]] bool waitForError(const std::string& text, std::chrono::seconds limit = std::chrono::seconds(20)) const;

 private:
  std::string files_;  // path without ending
  pid_t process_ = -1;
  int input_ = -1;
};

}  // namespace kelvo::test
