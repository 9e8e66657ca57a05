#include "support/LogCapture.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>

#include "util/KLVLogger.h"

namespace kelvo::test {
namespace {

struct Lines {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> all;
};
Lines& captured() {
  static Lines& lines = *new Lines;  // the log thread may outlive every static
  return lines;
}

std::size_t countIn(const std::vector<std::string>& lines, const std::string& text) {
  const auto contains = [&](const std::string& line) { return line.find(text) != std::string::npos; };
  return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), contains));
}

}  // namespace

LogCapture::LogCapture() {
  {
    const std::lock_guard lock(captured().mutex);
    captured().all.clear();
  }
  KLVLogger::setLogLevel(KLVLogger::Level::debug);
  KLVLogger::setSink([](KLVLogger::Level, std::string_view line) {
    const std::lock_guard lock(captured().mutex);
    captured().all.emplace_back(line);
    captured().changed.notify_all();
  });
}

LogCapture::~LogCapture() {
  KLVLogger::drain(std::chrono::seconds(5));
  KLVLogger::setSink({});
}

std::vector<std::string> LogCapture::lines() const {
  KLVLogger::drain(std::chrono::seconds(5));
  const std::lock_guard lock(captured().mutex);
  return captured().all;
}

std::size_t LogCapture::count(const std::string& text) const {
  return countIn(lines(), text);
}

bool LogCapture::waitFor(const std::string& text) const {
  std::unique_lock lock(captured().mutex);
  return captured().changed.wait_for(lock, std::chrono::seconds(10), [&] { return countIn(captured().all, text) > 0; });
}

}  // namespace kelvo::test
