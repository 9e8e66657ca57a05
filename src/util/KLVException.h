#pragma once

#include <stdexcept>

namespace kelvo {

/// Thrown for a value that cannot be stored; `what()` is the reason for the log line.
///
/// It never leaves the library: the code that prepares a host call's arguments, or runs a task, catches it and drops
/// that one call.
class KLVInvalidArgument : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

}  // namespace kelvo
