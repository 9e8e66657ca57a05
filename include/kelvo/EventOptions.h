#pragma once

namespace kelvo {

/// How the attributes of an event are stored: `logAppEventWithName("Purchase", info, EventOptions{true})`.
struct EventOptions {
  /// A nested dictionary becomes JSON text under its key. With `flatten`, its entries become attributes of their own,
  /// under keys joined by "_"; only dictionaries inside it become JSON text.
  bool flatten = false;
};

}  // namespace kelvo
