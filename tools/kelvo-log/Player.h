#pragma once

#include <stdexcept>
#include <string>

#include "kelvo/Nilable.h"

namespace kelvo::log {

/// Thrown for a line that cannot be played. `what()` returns the reason.
class BadLine : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Makes the host call that `line` describes as a JSON object. A missing or null member is passed as nil, except for a
/// name, which must be there. Throws `BadLine`.
void play(const std::string& line);

/// Starts the library, in the home of this application id.
void start(const OptionalText& appId);

/// Returns whether the latest report of activity that was played is `willResignActive`.
[[nodiscard]] bool isInBackground();

}  // namespace kelvo::log
