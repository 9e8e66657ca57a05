// The same program as minimal.cpp, without the library, for comparison.
#include <cstdio>
#include <ctime>

int main() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  std::printf("main %lld.%09ld\n", static_cast<long long>(now.tv_sec), now.tv_nsec);
}
