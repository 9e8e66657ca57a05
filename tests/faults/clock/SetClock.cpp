// Preloaded into a program: shifts its wall clock by the number of seconds (a 64-bit integer) in the file
// KELVO_TEST_CLOCK. The test changes the file while the program runs. The monotonic clock is not shifted, as when a
// user sets the time.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

const volatile std::int64_t* mappedShift() {
  const char* path = std::getenv("KELVO_TEST_CLOCK");
  const int file = path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
  if (file < 0) return nullptr;
  void* memory = mmap(nullptr, sizeof(std::int64_t), PROT_READ, MAP_SHARED, file, 0);
  close(file);
  return memory == MAP_FAILED ? nullptr : static_cast<const volatile std::int64_t*>(memory);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept {
  static std::atomic<const volatile std::int64_t*> mapped{nullptr};
  const volatile std::int64_t* shift = mapped;
  if (shift == nullptr) mapped = shift = mappedShift();  // not at load, when the environment may not be set up
  const auto result = syscall(SYS_clock_gettime, clock, time);
  if (result == 0 && clock == CLOCK_REALTIME && shift != nullptr) time->tv_sec += *shift;
  return static_cast<int>(result);
}
