#pragma once

#include <QObject>
#include <QPointer>
#include <QTimer>
#include <QWidget>
#include <memory>

#include "kelvo/ViewTree.h"

namespace kelvo::qt {

/// Watches windows, pages and dialogs, and reports each change of the screen in front to the library. Thread: the main
/// thread only.
class ScreenFollower final : public QObject {
 public:
  ScreenFollower();

  /// Returns the screen in front and counts it as reported. nullptr if no window is visible.
  [[nodiscard]] std::shared_ptr<ViewController> takeShown();

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  void report();

  QPointer<QWidget> shown_;  // the screen reported last
  QTimer soon_;              // delays `report` until the current events are over, as several widgets change together
};

}  // namespace kelvo::qt
