// The same program as minimal.cpp, without the library, for comparison.
#include <cstdio>
#include <ctime>

int main(int count, char**) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  std::printf("main %lld.%09ld\n", static_cast<long long>(now.tv_sec), now.tv_nsec);
  std::fflush(stdout);
  if (count > 1) static_cast<void>(std::getchar());  // until its memory is read
}
