#include "support/LogCapture.h"

#include <algorithm>
#include <condition_variable>

#include "platform/ThreadSafety.h"
#include "util/KLVLogger.h"

namespace kelvo::test {
namespace {

constexpr std::chrono::seconds kLongestDrain{5};
constexpr std::chrono::seconds kLongestWait{10};

struct Lines {
  Mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> all GUARDED_BY(mutex);
};
Lines& captured() {
  static Lines& lines = *new Lines;  // never destroyed: the log thread runs during exit
  return lines;
}

std::size_t countIn(const std::vector<std::string>& lines, const std::string& text) {
  const auto contains = [&](const std::string& line) { return line.find(text) != std::string::npos; };
  return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), contains));
}

}  // namespace

LogCapture::LogCapture() {
  {
    Lines& lines = captured();
    const Lock lock(lines.mutex);
    lines.all.clear();
  }
  KLVLogger::setLogLevel(KLVLogger::Level::debug);
  KLVLogger::setSink([](KLVLogger::Level, std::string_view line) {
    Lines& lines = captured();
    const Lock lock(lines.mutex);
    lines.all.emplace_back(line);
    lines.changed.notify_all();
  });
}

LogCapture::~LogCapture() {
  KLVLogger::drain(kLongestDrain);
  KLVLogger::setSink({});
}

std::vector<std::string> LogCapture::lines() const {
  KLVLogger::drain(kLongestDrain);
  Lines& lines = captured();
  const Lock lock(lines.mutex);
  return lines.all;
}

std::size_t LogCapture::count(const std::string& text) const {
  return countIn(lines(), text);
}

bool LogCapture::waitFor(const std::string& text) const {
  Lines& lines = captured();
  Lock lock(lines.mutex);
  const auto deadline = std::chrono::steady_clock::now() + kLongestWait;
  while (countIn(lines.all, text) == 0) {
    if (!lock.waitUntil(lines.changed, deadline)) return countIn(lines.all, text) > 0;
  }
  return true;
}

}  // namespace kelvo::test
