#pragma once

#include <QObject>
#include <QPointer>
#include <QQuickItem>
#include <QString>
#include <memory>
#include <optional>
#include <vector>

#include "adapters/qtgui/Toolkit.h"

namespace kelvo::qt {

/// The Qt Quick windows of the application: their items, and the screens that QML marks with `Kelvo.screen`. Thread:
/// the main thread only.
///
/// It keeps no current screen. Signals of items, containers and windows only ask for another look, which follows when
/// the current events are over. Objects that are being destroyed are gone by then.
class ItemToolkit final : public QObject, public Toolkit {
  Q_OBJECT

 public:
  ItemToolkit();
  ~ItemToolkit() override;
  Q_DISABLE_COPY_MOVE(ItemToolkit)

  /// Returns the toolkit of the application. Adds it first, if there is none.
  static ItemToolkit& ofApplication();

  /// Makes `object` (an item, a window or a popup) the screen `name`. An empty name removes the mark.
  void mark(QObject& object, const QString& name);

  [[nodiscard]] std::vector<std::shared_ptr<Window>> windows() override;
  /// Returns the marked screen in the window with the focus, or in a window that owns it; without a focus, in any
  /// visible window. Of several in one window, the one that is drawn last counts: the innermost one, or the popup.
  /// Returns nullptr if there is none, or while its container moves from one item to another.
  [[nodiscard]] std::shared_ptr<ViewController> screenInFront() override;
  /// Of the marked items in the QQuickWidgets of `window`, the one that is drawn last is the screen.
  [[nodiscard]] std::optional<std::shared_ptr<ViewController>> screenInside(const QWindow& window) override;
  [[nodiscard]] std::vector<std::shared_ptr<View>> viewsInside(const QWindow& window, const QRect& place) override;

 private:
  struct Mark {
    QPointer<QObject> object;
    QString screen;
  };

  /// Looks at the screens again. A slot, because only slots can be connected once however often one tries.
  Q_SLOT void lookAgain() { screensMayHaveChanged(); }
  /// Looks again whenever `object` emits `signal`, if it has this signal.
  void watch(QObject* object, const char* signal);
  /// Watches everything that can show or hide `item`.
  void watchAround(QQuickItem& item);
  void watchMarks();
  [[nodiscard]] const Mark* markInFront(const QWindow& window) const;

  std::vector<Mark> marks_;
};

}  // namespace kelvo::qt
