#pragma once

#include <array>
#include <cstddef>

#include "kelvo/Value.h"

namespace kelvo::bench {

/// Returns the attributes of a measured event: five short texts, two integers and a double.
inline Dictionary attributes(std::size_t number) {
  return {{"item", "book"},    {"shop", "Main Street"},  {"currency", "EUR"},  {"campaign", "spring"},
          {"payment", "card"}, {"quantity", number % 7}, {"position", number}, {"price", 12.5}};
}

/// Returns the name of a measured event: one of twelve, because an application logs few names many times.
inline const char* name(std::size_t number) {
  static constexpr std::array<const char*, 12> kNames{"Search",   "Open Item", "Add To Cart", "Remove",
                                                      "Checkout", "Pay",       "Purchase",    "Share Item",
                                                      "Log In",   "Rate",      "Scroll",      "Log Out"};
  return kNames[number % kNames.size()];
}

}  // namespace kelvo::bench
