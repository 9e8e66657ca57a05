#pragma once

#include <QObject>
#include <QPointer>
#include <QTimer>
#include <QWidget>
#include <memory>

#include "kelvo/ViewTree.h"

namespace kelvo::qt {

/// Watches windows, pages and dialogs come and go, and reports each change of the screen in front. Lives on the main
/// thread.
class ScreenFollower final : public QObject {
 public:
  ScreenFollower();

  /// The screen in front, which counts as reported by this; nullptr when no window shows.
  [[nodiscard]] std::shared_ptr<ViewController> takeShown();

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  void report();

  QPointer<QWidget> shown_;
  QTimer soon_;  // several windows and pages change in one go
};

}  // namespace kelvo::qt
