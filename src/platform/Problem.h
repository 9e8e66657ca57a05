#pragma once

#include <string>

namespace kelvo {

/// How this layer, which lies below the logger, reports a failure: one line at error level.
using ProblemHandler = void (*)(const char* where, std::string what);
/// `handler` is installed once, by the logger; until then problems are written to standard error.
void setProblemHandler(ProblemHandler handler);
/// `where` must live for ever.
void reportProblem(const char* where, std::string what);

}  // namespace kelvo
