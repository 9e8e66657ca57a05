#pragma once

#include <QObject>
#include <QPointer>
#include <QWidget>
#include <memory>
#include <vector>

#include "adapters/qtgui/Toolkit.h"

namespace kelvo::qt {

/// The windows and screens of Qt Widgets. Watches windows, pages and dialogs for changes of the screen in front.
/// Thread: the main thread only.
class ScreenFollower final : public QObject, public Toolkit {
 public:
  ScreenFollower();

  std::vector<std::shared_ptr<Window>> windows() override;
  std::shared_ptr<ViewController> screenInFront() override;

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  QPointer<QWidget> before_;  // the last screen in front
};

}  // namespace kelvo::qt
