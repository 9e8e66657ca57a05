#pragma once

#include <memory>
#include <string>
#include <vector>

#include "adapters/qtgui/Toolkit.h"

namespace kelvo::qt {

/// The screens of all toolkits, and the one reported last. Thread: the main thread only.
class Screens {
 public:
  void add(std::unique_ptr<Toolkit> toolkit);
  [[nodiscard]] std::vector<std::shared_ptr<Window>> windows() const;
  /// Return what `Toolkit` says, of all toolkits.
  [[nodiscard]] std::optional<std::shared_ptr<ViewController>> screenInside(const QWindow& window) const;
  [[nodiscard]] std::vector<std::shared_ptr<View>> viewsInside(const QWindow& window, const QRect& place) const;
  /// Returns the screen in front and counts it as reported. nullptr if there is none.
  [[nodiscard]] std::shared_ptr<ViewController> take();
  /// Forgets which screen was reported last: the next report is about a new launch.
  void forgetReported() { reported_.clear(); }
  /// Reports the screen in front to the library, unless it is the one reported last or there is none.
  void report();

 private:
  [[nodiscard]] std::shared_ptr<ViewController> inFront() const;

  std::vector<std::unique_ptr<Toolkit>> toolkits_;  // the first one is asked first
  std::string reported_;                            // the name of the screen reported last
};

}  // namespace kelvo::qt
