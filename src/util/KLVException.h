#pragma once

#include <stdexcept>

namespace kelvo {

/// A value that cannot be stored where it was meant to go; `what()` is the reason for the log line. It never
/// leaves the library: whoever prepares a host's arguments, or runs a job, catches it and drops that one call.
class KLVInvalidArgument : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

}  // namespace kelvo
