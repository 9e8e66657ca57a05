#pragma once

#include <QGuiApplication>
#include <QObject>
#include <QTimer>
#include <functional>

namespace kelvo::qt {

/// Reports to the library when the application enters and leaves the foreground. The end of the process leaves it, too.
/// Thread: the main thread only.
///
/// The application is in the foreground while one of its windows has the focus. Without a window manager, no window
/// may ever get it: until the first one does, a visible window is enough.
class Foreground final : public QObject {
 public:
  /// `beforeEntering` is called before each report of the foreground.
  Foreground(QGuiApplication& application, std::function<void()> beforeEntering);

  /// Begins to report. Called when the library has started.
  void start();
  /// Leaves the foreground, and reports no more.
  void end();
  /// Returns whether the application is in the foreground, as last reported to the library.
  [[nodiscard]] static bool isActive();

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  void follow(Qt::ApplicationState state);
  /// Reports the application's present state.
  void settle();

  std::function<void()> beforeEntering_;
  Qt::ApplicationState state_;
  bool hadFocus_;  // since the application was attached
  bool started_ = false;
  QTimer soon_;  // delays `settle`
};

}  // namespace kelvo::qt
