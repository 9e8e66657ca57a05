#include "kelvo-log/Progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "core/KLVController.h"
#include "util/KLVLogger.h"

namespace kelvo::log {
namespace {

constexpr std::chrono::milliseconds kInterval(200);
constexpr const char* kClear = "\r\033[K";

}  // namespace

Progress::Progress(bool isQuiet) : isShown_(!isQuiet && ::isatty(STDERR_FILENO) != 0) {
  if (!isShown_) return;
  KLVLogger::setSink([](KLVLogger::Level, std::string_view line) {  // a log line replaces the progress, which follows
    std::fprintf(stderr, "%s%.*s\n", kClear, static_cast<int>(line.size()), line.data());
  });
}

Progress::~Progress() {
  if (isShown_) KLVLogger::setSink({});
  clear();
}

void Progress::linePlayed() {
  ++lines_;
  if (isShown_) show();
}

void Progress::show() {
  const auto now = Clock::now();
  if (!isShown_ || now - latest_ < kInterval) return;
  latest_ = now;
  const auto state = KLVController::sharedController().deliveryState();
  const double seconds = std::max(std::chrono::duration<double>(now - start_).count(), 0.001);
  std::fprintf(stderr, "%s%zu line%s, %.0f events/s, %llu chunks accepted, %zu waiting", kClear, lines_,
               lines_ == 1 ? "" : "s", static_cast<double>(lines_) / seconds,
               static_cast<unsigned long long>(state.deliveredChunks), state.waiting);
  isVisible_ = true;
}

void Progress::clear() {
  if (isVisible_) std::fputs(kClear, stderr);
  isVisible_ = false;
}

}  // namespace kelvo::log
