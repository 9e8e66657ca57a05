#pragma once

#include <string>

namespace kelvo {

/// Logs a failure of this layer, which is below the logger, as one line at error level.
using ProblemHandler = void (*)(const char* where, std::string what);
/// Installs the logger's handler. Until then, problems are written to standard error.
void setProblemHandler(ProblemHandler handler);
/// Reports a failure. `where` must be valid until the process ends, because the logger keeps the pointer. Thread-safe.
void reportProblem(const char* where, std::string what);

}  // namespace kelvo
