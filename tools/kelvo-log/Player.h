#pragma once

#include <stdexcept>
#include <string>

#include "kelvo/Value.h"

namespace kelvo::log {

/// Thrown for a line that cannot be played. `what()` returns the reason.
class BadLine : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Makes the host call that `line` describes as a JSON object. A missing or null member is passed as nil. Throws
/// `BadLine`.
void play(const std::string& line);

}  // namespace kelvo::log
