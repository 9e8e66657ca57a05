#include "process/Measuring.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace kelvo::bench {
namespace {

constexpr auto kLongestWait = std::chrono::minutes(10);
constexpr int kClockWarmUps = 1000;

}  // namespace

double now() {
  return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
}

void waitFor(const std::function<bool()>& condition, std::chrono::microseconds interval) {
  const auto deadline = Clock::now() + kLongestWait;
  while (!condition()) {
    if (Clock::now() > deadline) {
      std::fprintf(stderr, "the measured host has waited for ten minutes\n");
      std::_Exit(1);
    }
    std::this_thread::sleep_for(interval);
  }
}

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

std::vector<double> durations(std::size_t count, std::chrono::microseconds pause,
                              const std::function<void(std::size_t number)>& operation) {
  std::vector<double> microseconds(count, 0);
  for (int i = 0; i < kClockWarmUps; ++i) static_cast<void>(Clock::now());
  for (std::size_t i = 0; i < count; ++i) {
    if (pause.count() > 0) std::this_thread::sleep_for(pause);
    const auto begin = Clock::now();
    operation(i);
    microseconds[i] = std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
  }
  std::sort(microseconds.begin(), microseconds.end());
  return microseconds;
}

void printFigure(const std::string& key, double value) {
  std::printf("%s %.9g\n", key.c_str(), value);
  std::fflush(stdout);
}

void endWith(int status) {
  std::fflush(stdout);
  std::_Exit(status);
}

void printPercentiles(const std::vector<double>& sorted) {
  const auto at = [&](double part) {
    return sorted[std::min(sorted.size() - 1, static_cast<std::size_t>(part * static_cast<double>(sorted.size())))];
  };
  printFigure("p50", at(0.5));
  printFigure("p99", at(0.99));
  printFigure("p999", at(0.999));
}

}  // namespace kelvo::bench
