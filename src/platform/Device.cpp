#include "platform/Device.h"

#include <sys/utsname.h>

#include <atomic>
#include <string_view>

#include "platform/Files.h"
#include "platform/ProcessWide.h"

namespace kelvo {
namespace {

std::atomic<ScreenSize> screen{ScreenSize{}};
static_assert(std::atomic<ScreenSize>::is_always_lock_free);
[[maybe_unused]] const ResetAtEnd screenIsReset([] { screen.store({}); });

std::string_view unquoted(std::string_view text) {
  const bool quoted = text.size() >= 2 && (text.front() == '"' || text.front() == '\'') && text.back() == text.front();
  return quoted ? text.substr(1, text.size() - 2) : text;
}

}  // namespace

std::string Device::machine() {
  utsname facts{};
  return ::uname(&facts) == 0 ? facts.machine : "";
}

std::string Device::systemVersion() {
  auto release = readFile("/etc/os-release");
  if (!release) release = readFile("/usr/lib/os-release");
  if (!release) return "";
  constexpr std::string_view kKey = "\nVERSION_ID=";
  release->insert(0, 1, '\n');
  const auto start = release->find(kKey);
  if (start == std::string::npos) return "";
  const auto line = std::string_view(*release).substr(start + kKey.size());
  return std::string(unquoted(line.substr(0, line.find('\n'))));
}

ScreenSize Device::screenSize() {
  return screen.load(std::memory_order_relaxed);
}
void Device::setScreenSize(ScreenSize size) {
  screen.store(size, std::memory_order_relaxed);
}

}  // namespace kelvo
