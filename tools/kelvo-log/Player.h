#pragma once

#include <stdexcept>
#include <string>

#include "kelvo/Value.h"

namespace kelvo::log {

/// A line that cannot be played; `what()` says why.
class BadLine : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Plays one host call, given as a JSON object; a member that is absent or null is nil. Throws `BadLine`.
void play(const std::string& line);

}  // namespace kelvo::log
