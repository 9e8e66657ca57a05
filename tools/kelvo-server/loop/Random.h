#pragma once

namespace kelvo::server {

/// Returns a random number from `least` to `most`, other ones in each process. Thread: any.
[[nodiscard]] int randomBetween(int least, int most);

}  // namespace kelvo::server
