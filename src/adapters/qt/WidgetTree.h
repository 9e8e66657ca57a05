#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "kelvo/ViewTree.h"

namespace kelvo::qt {

/// Gives the library the live widgets of the application as windows and views.
///
/// Each window and view holds its widget weakly, and is an empty, hidden view once the widget is deleted. Thread: the
/// main thread only; windows and views may be released on any thread.
class WidgetTree final : public ViewTree {
 public:
  using ScreenLookup = std::function<std::shared_ptr<ViewController>()>;

  /// `startReporting` is called when the library has started, and again at each lookup of the windows.
  /// `takeShownScreen` returns the screen in front, nullptr if there is none. Both are called on the main thread.
  WidgetTree(std::function<void()> startReporting, ScreenLookup takeShownScreen)
      : startReporting_(std::move(startReporting)), takeShownScreen_(std::move(takeShownScreen)) {}

  /// Returns the visible windows. The first call also starts the reports of screens and activity.
  [[nodiscard]] std::vector<std::shared_ptr<Window>> windows() override;
  [[nodiscard]] std::optional<Font> font(const Dictionary& attributes, double size) const override;

 private:
  void noteThatLibraryHasStarted() const;
  [[nodiscard]] std::vector<std::shared_ptr<Window>> visibleWindows() const;

  std::function<void()> startReporting_;
  ScreenLookup takeShownScreen_;
};

}  // namespace kelvo::qt
