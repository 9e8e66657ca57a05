#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace kelvo::bench {

/// A process that this one starts; what it writes to standard error is thrown away. Killed when this dies.
class Child {
 public:
  /// `variables` are added to the environment.
  Child(const std::vector<std::string>& command, const std::map<std::string, std::string>& variables);
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  [[nodiscard]] pid_t process() const noexcept { return process_; }
  /// The next line of its standard output, without the line feed; empty at the end.
  std::string readLine();
  /// All "key value" lines until its end. `peak`, when given, becomes its highest private memory in bytes.
  std::map<std::string, double> readFigures(double* peak = nullptr);

 private:
  pid_t process_ = -1;
  int output_ = -1;
  std::string read_;
};

}  // namespace kelvo::bench
