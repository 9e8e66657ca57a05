#include "adapters/quick/ItemNodes.h"

#include <QGuiApplication>
#include <QQuickItem>
#include <QQuickRenderControl>
#include <QQuickWindow>
#include <QVariant>
#include <algorithm>

#include "adapters/qtgui/Toolkit.h"
#include "adapters/qtgui/WeakObject.h"
#include "adapters/quick/ItemClasses.h"
#include "kelvo/QtGui.h"

namespace kelvo::qt {
namespace {

/// The list or table around an item, and the item's number in it.
struct Row {
  const QQuickItem* list = nullptr;
  int row = -1;
};

/// Returns the number of the table's delegate `item` in reading order, -1 if it is none.
int cellOf(const QQuickItem& item, QQuickItem& table) {
  QPoint cell;
  QQuickItem* delegate = nullptr;
  const QPointF centre(item.x() + item.width() / 2, item.y() + item.height() / 2);
  QMetaObject::invokeMethod(&table, "cellAtPosition", Q_RETURN_ARG(QPoint, cell), Q_ARG(QPointF, centre));
  QMetaObject::invokeMethod(&table, "itemAtCell", Q_RETURN_ARG(QQuickItem*, delegate), Q_ARG(QPoint, cell));
  return delegate == &item ? cell.y() * table.property("columns").toInt() + cell.x() : -1;
}

/// Returns the row of the list's delegate `item`, -1 if it is none: a header or the highlight, for example.
int rowOf(const QQuickItem& item, QQuickItem& list) {
  int row = -1;
  QQuickItem* delegate = nullptr;
  QMetaObject::invokeMethod(&list, "indexAt", Q_RETURN_ARG(int, row), Q_ARG(qreal, item.x() + item.width() / 2),
                            Q_ARG(qreal, item.y() + item.height() / 2));
  QMetaObject::invokeMethod(&list, "itemAtIndex", Q_RETURN_ARG(QQuickItem*, delegate), Q_ARG(int, row));
  return delegate == &item ? row : -1;
}

/// Returns the list or table whose delegate `item` is, with its row. The list is nullptr if `item` is no delegate.
Row rowOf(const QQuickItem& item) {
  QQuickItem* content = item.parentItem();
  QQuickItem* list = content != nullptr ? content->parentItem() : nullptr;
  if (list == nullptr) return {};
  int row = -1;
  if (list->inherits("QQuickItemView")) row = rowOf(item, *list);
  if (list->inherits("QQuickTableView") && !list->inherits("QQuickHeaderViewBase")) row = cellOf(item, *list);
  return row < 0 ? Row{} : Row{list, row};
}

/// Base class of the nodes of windows and items. `Base` is Window or View, `Object` is QQuickWindow or QQuickItem.
template <class Base, class Object>
class Node : public Base {
 public:
  explicit Node(Object* object) : object_(object) {}

  [[nodiscard]] std::string className() const override {
    return object_ ? typeNameOf(*object_->metaObject()) : std::string();
  }
  [[nodiscard]] std::vector<std::string> superclassNames() const override {
    return object_ ? superclassNamesOf(*object_->metaObject()) : std::vector<std::string>();
  }
  [[nodiscard]] bool isHidden() const override { return !object_ || !object_->isVisible(); }
  [[nodiscard]] double alpha() const override { return object_ ? object_->opacity() : 0; }
  [[nodiscard]] std::int64_t tag() const override { return object_ ? object_->property(kTagProperty).toLongLong() : 0; }
  void setTag(std::int64_t tag) override {
    if (object_) object_->setProperty(kTagProperty, QVariant::fromValue<qlonglong>(tag));
  }
  [[nodiscard]] std::optional<Value> nativeID() const override {
    if (!object_ || object_->objectName().isEmpty()) return std::nullopt;
    return Value(object_->objectName().toStdString());
  }

 protected:
  WeakObject<Object> object_;
};

class ItemNode final : public Node<View, QQuickItem> {
 public:
  using Node::Node;
  [[nodiscard]] std::vector<std::string> superclassNames() const override {
    auto names = Node::superclassNames();
    const QQuickItem* list = object_ ? rowOf(*object_).list : nullptr;
    if (list != nullptr) names.push_back(list->inherits("QQuickGridView") ? "UICollectionViewCell" : "UITableViewCell");
    return names;
  }
  [[nodiscard]] Rect frame() const override {
    if (!object_) return {};
    QPoint origin;  // of the scene, in the coordinates of the window
    if (object_->window() != nullptr) QQuickRenderControl::renderWindowFor(object_->window(), &origin);
    const QRectF area = object_->mapRectToScene(object_->boundingRect()).translated(origin);
    return {area.x(), area.y(), area.width(), area.height()};
  }
  [[nodiscard]] std::vector<std::shared_ptr<View>> subviews() const override {
    if (!object_) return {};
    auto children = object_->childItems();
    std::stable_sort(children.begin(), children.end(),
                     [](auto* first, auto* second) { return first->z() < second->z(); });
    std::vector<std::shared_ptr<View>> views;
    for (QQuickItem* child : children) views.push_back(std::make_shared<ItemNode>(child));
    return views;
  }
  [[nodiscard]] std::optional<IndexPath> indexPathForCell(const View& cell) const override {
    const auto* node = dynamic_cast<const ItemNode*>(&cell);
    const QQuickItem* item = node != nullptr ? node->object_.get() : nullptr;
    for (; item != nullptr && object_; item = item->parentItem()) {
      if (const Row place = rowOf(*item); place.list == object_.get()) return IndexPath{0, place.row};
    }
    return std::nullopt;
  }
};

class WindowNode final : public Node<Window, QQuickWindow> {
 public:
  using Node::Node;
  [[nodiscard]] Rect frame() const override {
    return object_ ? Rect{0, 0, double(object_->width()), double(object_->height())} : Rect();
  }
  [[nodiscard]] std::vector<std::shared_ptr<View>> subviews() const override {
    if (!object_) return {};
    return {std::make_shared<ItemNode>(object_->contentItem())};
  }
  [[nodiscard]] bool isKey() const override { return object_ && QGuiApplication::focusWindow() == object_.get(); }
  [[nodiscard]] std::shared_ptr<ViewController> rootViewController() const override { return takeScreenInFront(); }
};

}  // namespace

std::vector<std::shared_ptr<Window>> visibleItemWindows() {
  std::vector<std::shared_ptr<Window>> windows;
  for (QWindow* window : QGuiApplication::topLevelWindows()) {
    auto* items = qobject_cast<QQuickWindow*>(window);
    const bool isDrawnElsewhere = items != nullptr && QQuickRenderControl::renderWindowFor(items) != nullptr;
    if (items != nullptr && items->isVisible() && !isDrawnElsewhere) {
      windows.push_back(std::make_shared<WindowNode>(items));
    }
  }
  return windows;
}

std::vector<std::shared_ptr<View>> itemsInside(const QWindow& window, const QRect& place) {
  std::vector<std::shared_ptr<View>> views;
  for (QWindow* each : QGuiApplication::allWindows()) {
    auto* items = qobject_cast<QQuickWindow*>(each);
    QPoint origin;
    if (items == nullptr || items->visibility() == QWindow::Hidden) continue;  // isVisible is always false
    if (QQuickRenderControl::renderWindowFor(items, &origin) != &window) continue;
    if (QRect(origin, items->size()) == place) views.push_back(std::make_shared<ItemNode>(items->contentItem()));
  }
  return views;
}

}  // namespace kelvo::qt
