#pragma once

#include <string>

namespace kelvo {

/// The size of a screen. The alignment makes `std::atomic<ScreenSize>` lock-free with every compiler.
struct alignas(8) ScreenSize {
  float width = 0;   ///< points
  float height = 0;  ///< points
};

/// Facts about the machine and its screen. Thread-safe.
class Device {
 public:
  /// Returns the `machine` field of uname, for example "x86_64". Empty on failure.
  static std::string machine();
  /// Returns `VERSION_ID` of os-release, or an empty text if there is none. Reads the file at each call.
  static std::string systemVersion();
  /// Returns the size that the host or an adapter reported last, 0 x 0 before the first report.
  static ScreenSize screenSize();
  static void setScreenSize(ScreenSize size);
};

}  // namespace kelvo
