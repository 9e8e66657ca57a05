#include "adapters/qt/WidgetTree.h"

#include <QApplication>
#include <QGraphicsOpacityEffect>
#include <QWindow>
#include <utility>

#include "adapters/qt/ItemCells.h"
#include "adapters/qt/WidgetClasses.h"
#include "adapters/qtgui/Toolkit.h"
#include "adapters/qtgui/WeakObject.h"
#include "kelvo/Qt.h"

namespace kelvo::qt {
namespace {

/// A widget as a view or a window. `Base` is View or Window.
template <class Base>
class WidgetNode : public Base {
 public:
  explicit WidgetNode(QWidget* widget) : widget_(widget) {}

  [[nodiscard]] std::string className() const override { return widget_ ? classNameOf(*widget_) : std::string(); }
  [[nodiscard]] std::vector<std::string> superclassNames() const override {
    return widget_ ? superclassNamesOf(*widget_) : std::vector<std::string>();
  }
  [[nodiscard]] Rect frame() const override {
    if (!widget_) return {};
    const QPoint corner = widget_->isWindow() ? QPoint() : widget_->mapTo(widget_->window(), QPoint());
    return {double(corner.x()), double(corner.y()), double(widget_->width()), double(widget_->height())};
  }
  [[nodiscard]] bool isHidden() const override { return !widget_ || widget_->isHidden(); }
  [[nodiscard]] double alpha() const override {
    if (!widget_) return 0;
    if (widget_->isWindow()) return widget_->windowOpacity();
    const auto* effect = qobject_cast<QGraphicsOpacityEffect*>(widget_->graphicsEffect());
    return effect != nullptr && effect->isEnabled() ? effect->opacity() : 1;
  }
  [[nodiscard]] std::int64_t tag() const override { return widget_ ? widget_->property(kTagProperty).toLongLong() : 0; }
  void setTag(std::int64_t tag) override {
    if (widget_) widget_->setProperty(kTagProperty, QVariant::fromValue<qlonglong>(tag));
  }
  [[nodiscard]] std::optional<Value> nativeID() const override {
    if (!widget_ || widget_->objectName().isEmpty()) return std::nullopt;
    return Value(widget_->objectName().toStdString());
  }
  [[nodiscard]] std::vector<std::shared_ptr<View>> subviews() const override {
    std::vector<std::shared_ptr<View>> views;
    if (!widget_) return views;
    if (auto* items = qobject_cast<QAbstractItemView*>(widget_.get())) views = cellsOf(*items);
    for (QObject* child : widget_->children()) {
      auto* widget = qobject_cast<QWidget*>(child);
      if (widget != nullptr && !widget->isWindow()) views.push_back(std::make_shared<WidgetNode<View>>(widget));
    }
    const QWindow* window = widget_->window()->windowHandle();
    if (window != nullptr && widget_->inherits("QQuickWidget")) {
      const QRect place(widget_->mapTo(widget_->window(), QPoint()), widget_->size());
      for (auto& view : embeddedViews(*window, place)) views.push_back(std::move(view));
    }
    return views;
  }
  [[nodiscard]] std::optional<IndexPath> indexPathForCell(const View& cell) const override {
    return widget_ ? placeOf(cell, *widget_) : std::nullopt;
  }

 protected:
  WeakObject<QWidget> widget_;
};

class WindowNode final : public WidgetNode<Window> {
 public:
  using WidgetNode::WidgetNode;
  /// Returns true for one window at most. QWidget::isActiveWindow would also return true for every open menu.
  [[nodiscard]] bool isKey() const override { return widget_ && QApplication::activeWindow() == widget_.get(); }
  [[nodiscard]] std::shared_ptr<ViewController> rootViewController() const override { return takeScreenInFront(); }
};

}  // namespace

std::vector<std::shared_ptr<Window>> visibleWidgetWindows() {
  std::vector<std::shared_ptr<Window>> windows;
  for (QWidget* widget : QApplication::topLevelWidgets()) {
    if (widget->isVisible()) windows.push_back(std::make_shared<WindowNode>(widget));
  }
  return windows;
}

}  // namespace kelvo::qt
