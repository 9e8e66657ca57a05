// The smallest host. The bench measures its size and the time from its start to its main function.
#include <cstdio>
#include <ctime>

#include "kelvo/KelvoSDK.h"

int main(int count, char**) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  std::printf("main %lld.%09ld\n", static_cast<long long>(now.tv_sec), now.tv_nsec);
  if (count > 1) {
    kelvo::KelvoSDK::initializeKelvoWithID("minimal");
    kelvo::KelvoSDK::logAppEventWithName("Hello", {{"who", "world"}});
  }
}
