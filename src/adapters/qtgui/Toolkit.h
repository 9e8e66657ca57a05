#pragma once

#include <QGuiApplication>
#include <QRect>
#include <memory>
#include <optional>
#include <vector>

#include "kelvo/ViewTree.h"

/// How the adapter of a toolkit reports the screens and views of the application. Thread: the main thread only.
namespace kelvo::qt {

/// What one of Qt's toolkits (widgets, items) draws in the application.
class Toolkit {
 public:
  virtual ~Toolkit() = default;
  /// Returns the visible windows, for searches of the library. Their `rootViewController` returns
  /// `takeScreenInFront()`.
  virtual std::vector<std::shared_ptr<Window>> windows() = 0;
  /// Returns the screen in front, nullptr if no window of this toolkit shows one. Screens with the same class name
  /// count as one screen.
  virtual std::shared_ptr<ViewController> screenInFront() = 0;

  // --- What it draws inside of another toolkit's windows.
  /// Returns the screen that it shows in `window`: nullopt if there is none, nullptr while it changes.
  virtual std::optional<std::shared_ptr<ViewController>> screenInside(const QWindow& window) {
    static_cast<void>(window);
    return std::nullopt;
  }
  /// Returns the views that it draws in the area `place` of `window`.
  virtual std::vector<std::shared_ptr<View>> viewsInside(const QWindow& window, const QRect& place) {
    static_cast<void>(window), static_cast<void>(place);
    return {};
  }
};

/// Does what `attach` does. Returns false if nothing is attached.
bool attachApplication(QGuiApplication& application) noexcept;

/// Adds `toolkit`, and deletes it when the application object is destroyed. Of several toolkits, the one that was added
/// last is asked first for the screen in front.
void addToolkit(std::unique_ptr<Toolkit> toolkit);

/// Reports the screen in front if it is another one than the last. The report follows when the current events are over,
/// since several objects change together. In the background, it waits for the return.
void screensMayHaveChanged();

/// Returns the screen in front, nullptr if there is none, and counts it as reported: the library reports this screen
/// itself.
[[nodiscard]] std::shared_ptr<ViewController> takeScreenInFront();

/// Return what other toolkits show and draw inside of `window`, as `Toolkit` says.
[[nodiscard]] std::optional<std::shared_ptr<ViewController>> embeddedScreen(const QWindow& window);
[[nodiscard]] std::vector<std::shared_ptr<View>> embeddedViews(const QWindow& window, const QRect& place);

}  // namespace kelvo::qt
