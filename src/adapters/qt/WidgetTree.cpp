#include "adapters/qt/WidgetTree.h"

#include <QApplication>
#include <QFontDatabase>
#include <QFontInfo>
#include <QGraphicsOpacityEffect>
#include <utility>

#include "adapters/qt/ItemCells.h"
#include "adapters/qt/WeakWidget.h"
#include "adapters/qt/WidgetClasses.h"
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
    return views;
  }
  [[nodiscard]] std::optional<IndexPath> indexPathForCell(const View& cell) const override {
    return widget_ ? placeOf(cell, *widget_) : std::nullopt;
  }

 protected:
  WeakWidget<QWidget> widget_;
};

class WindowNode final : public WidgetNode<Window> {
 public:
  WindowNode(QWidget* widget, WidgetTree::ScreenLookup takeShownScreen)
      : WidgetNode(widget), takeShownScreen_(std::move(takeShownScreen)) {}
  /// Returns true for one window at most. QWidget::isActiveWindow would also return true for every open menu.
  [[nodiscard]] bool isKey() const override { return widget_ && QApplication::activeWindow() == widget_.get(); }
  [[nodiscard]] std::shared_ptr<ViewController> rootViewController() const override { return takeShownScreen_(); }

 private:
  WidgetTree::ScreenLookup takeShownScreen_;
};

QString withoutSpaces(QString text) {
  return text.remove(u' ');
}

}  // namespace

std::vector<std::shared_ptr<Window>> WidgetTree::windows() {
  noteThatLibraryHasStarted();
  return visibleWindows();
}

/// The public API does not tell an adapter when the library has started. But the library looks up the windows only
/// after its start: at first to find the screen in front, which it then reports itself. So the first lookup means that
/// the library has started, and the adapter starts to report here. An earlier report would be lost. If the adapter
/// started later, it would report the first screen again.
void WidgetTree::noteThatLibraryHasStarted() const {
  startReporting_();
}

std::vector<std::shared_ptr<Window>> WidgetTree::visibleWindows() const {
  std::vector<std::shared_ptr<Window>> windows;
  for (QWidget* widget : QApplication::topLevelWidgets()) {
    if (widget->isVisible()) windows.push_back(std::make_shared<WindowNode>(widget, takeShownScreen_));
  }
  return windows;
}

std::optional<Font> WidgetTree::font(const Dictionary& attributes, double size) const {
  const auto textAt = [&](std::string_view key) {
    return QString::fromStdString(attributes[key].asText().value_or(std::string()));
  };
  QString family = textAt(kFontFamilyAttribute);
  const QString face = textAt(kFontFaceAttribute);
  if (family.isEmpty()) family = textAt(kFontNameAttribute);
  if (family.isEmpty() && face.isEmpty()) return std::nullopt;
  if (family.isEmpty()) family = QApplication::font().family();
  if (!QFontDatabase::hasFamily(family)) return std::nullopt;
  const QFont font = QFontDatabase::font(family, face, static_cast<int>(size));
  const QFontInfo actual(font);
  const QString style =
      withoutSpaces(actual.styleName().isEmpty() ? QFontDatabase::styleString(actual) : actual.styleName());
  const QString name = withoutSpaces(actual.family()) + (style.isEmpty() ? QString() : u'-' + style);
  return Font{name.toStdString(), size};
}

}  // namespace kelvo::qt
