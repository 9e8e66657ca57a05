#pragma once

namespace kelvo {

/// Whether the user of this device allows the collection of data.
enum class Consent {
  undecided,  ///< nobody has asked yet: nothing is collected, and nothing is written anywhere
  granted,    ///< data is collected and sent
  denied,     ///< nothing is collected, and everything that was is erased
};

}  // namespace kelvo
