#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace kelvo::test {

/// A child process. The test writes its standard input; its output goes to files. The destructor kills it.
class Program {
 public:
  using Environment = std::map<std::string, std::string>;  ///< changes to this process's; an empty value unsets

  Program(const std::vector<std::string>& command, const Environment& environment);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void writeLine(const std::string& line);
  void closeInput();
  void kill(int signal);
  /// Blocks until the process ends. Returns its exit status, or the negative number of the signal that ended it.
  int wait();

  [[nodiscard]] pid_t id() const { return process_; }
  [[nodiscard]] std::string output() const;
  [[nodiscard]] std::string errors() const;
  /// Blocks until the output (or the errors) contains `text`. Returns false if it does not within a minute.
  [[nodiscard]] bool waitForOutput(const std::string& text) const { return waitFor(&Program::output, text); }
  [[nodiscard]] bool waitForError(const std::string& text) const { return waitFor(&Program::errors, text); }

 private:
  bool waitFor(std::string (Program::*text)() const, const std::string& part) const;

  std::string files_;  // path without extension
  pid_t process_ = -1;
  int input_ = -1;
};

}  // namespace kelvo::test
