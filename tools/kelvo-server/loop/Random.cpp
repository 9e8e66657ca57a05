#include "kelvo-server/loop/Random.h"

#include <random>

namespace kelvo::server {

int randomBetween(int least, int most) {
  thread_local std::minstd_rand random{std::random_device()()};
  return std::uniform_int_distribution<int>(least, most)(random);
}

}  // namespace kelvo::server
