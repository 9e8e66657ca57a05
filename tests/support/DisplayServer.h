#pragma once

#include <memory>
#include <string>

#include "support/Program.h"

namespace kelvo::test {

/// A virtual X display of its own, with the window manager openbox or with none. The destructor ends both.
class DisplayServer {
 public:
  enum class Manager { none, openbox };

  DisplayServer() = default;
  ~DisplayServer();
  DisplayServer(const DisplayServer&) = delete;
  DisplayServer& operator=(const DisplayServer&) = delete;

  /// Returns the display once it takes connections. nullptr if the programs are not installed or do not start, and with
  /// the thread sanitizer, which does not understand the locks of the toolkits' libraries.
  static std::unique_ptr<DisplayServer> start(Manager manager);

  /// Returns the environment of a program on this display. The toolkits' libraries leave memory to the exit.
  [[nodiscard]] Program::Environment environment() const {
    return {
        {"DISPLAY", name_}, {"QT_QPA_PLATFORM", "xcb"}, {"WAYLAND_DISPLAY", ""}, {"ASAN_OPTIONS", "detect_leaks=0"}};
  }

 private:
  std::unique_ptr<Program> server_;
  std::unique_ptr<Program> manager_;
  std::string name_;
};

}  // namespace kelvo::test
