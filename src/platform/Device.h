#pragma once

#include <string>

namespace kelvo {

/// Facts about the machine and its screen.
struct alignas(8) ScreenSize {  // so that every compiler reads and writes it at once, without a lock
  float width = 0;              ///< points
  float height = 0;             ///< points
};

class Device {
 public:
  /// The `machine` field of uname: "x86_64".
  static std::string machine();
  /// `VERSION_ID` of os-release, or the empty text.
  static std::string systemVersion();
  /// What the host or an adapter reported last; 0 x 0 before.
  static ScreenSize screenSize();
  static void setScreenSize(ScreenSize size);
};

}  // namespace kelvo
