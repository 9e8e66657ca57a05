#include "platform/Problem.h"

#include <atomic>
#include <cstdio>
#include <utility>

namespace kelvo {
namespace {
std::atomic<ProblemHandler> problemHandler{nullptr};
}

void setProblemHandler(ProblemHandler handler) {
  problemHandler.store(handler);
}

void reportProblem(const char* where, std::string what) {
  if (const auto handler = problemHandler.load()) return handler(where, std::move(what));
  std::fprintf(stderr, "%s: %s\n", where, what.c_str());
}

}  // namespace kelvo
