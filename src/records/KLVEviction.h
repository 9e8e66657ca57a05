#pragma once

#include <cstdint>

namespace kelvo {

/// Data that was deleted before the service accepted it. Events are those of the types that chunks carry.
struct KLVEviction {
  std::uint64_t events = 0;
  std::uint64_t chunks = 0;
};

}  // namespace kelvo
