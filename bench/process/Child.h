#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace kelvo::bench {

/// A child process. Its standard error is discarded. The destructor kills it.
class Child {
 public:
  /// Starts `command` with `variables` added to the environment. Throws if it cannot be started.
  Child(const std::vector<std::string>& command, const std::map<std::string, std::string>& variables);
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  [[nodiscard]] pid_t process() const noexcept { return process_; }
  /// Blocks for the next line of its standard output. Returns it without the line feed, or the empty text at the end.
  std::string readLine();
  /// Reads "key value" lines until the child ends. If `peak` is given, samples the child's private memory every few
  /// milliseconds and sets `*peak` to the highest sample, in bytes. Throws on any other line.
  std::map<std::string, double> readFigures(double* peak = nullptr);

 private:
  pid_t process_ = -1;
  int output_ = -1;
  std::string read_;
};

}  // namespace kelvo::bench
