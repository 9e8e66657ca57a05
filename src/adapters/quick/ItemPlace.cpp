#include "adapters/quick/ItemPlace.h"

#include <QVariant>
#include <algorithm>

namespace kelvo::qt {
namespace {

// The classes of Qt Quick Controls and of Loader have no public headers. They are known by name, and read by property.

bool isSwipeView(const QQuickItem& item) {
  return item.inherits("QQuickSwipeView");
}

bool isContainer(const QQuickItem& item) {
  return isSwipeView(item) || item.inherits("QQuickStackView");
}

QQuickItem* itemAt(const QQuickItem& item, const char* property) {
  return item.property(property).value<QQuickItem*>();
}

bool isAround(const QQuickItem* outer, const QQuickItem& inner) {
  return outer != nullptr && (outer == &inner || outer->isAncestorOf(&inner));
}

/// Returns the direct child of `around` that is `item` or is around it.
const QQuickItem* childOf(const QQuickItem& around, const QQuickItem* item) {
  while (item->parentItem() != &around) item = item->parentItem();
  return item;
}

}  // namespace

std::vector<QQuickItem*> containersOf(const QQuickItem& item) {
  std::vector<QQuickItem*> containers;
  for (QQuickItem* around = item.parentItem(); around != nullptr; around = around->parentItem()) {
    if (isContainer(*around)) containers.push_back(around);
  }
  return containers;
}

QQuickItem* itemThatMoves(QQuickItem& container) {
  QQuickItem* list = isSwipeView(container) ? itemAt(container, "contentItem") : nullptr;
  return list != nullptr ? list : &container;
}

bool isInCurrentItems(const QQuickItem& item) {
  if (!item.isVisible()) return false;
  if (item.inherits("QQuickLoader") && item.property("item").value<QObject*>() == nullptr) return false;
  const auto containers = containersOf(item);
  return std::all_of(containers.begin(), containers.end(),
                     [&](const QQuickItem* container) { return isAround(itemAt(*container, "currentItem"), item); });
}

bool isMoving(const QQuickItem& item) {
  const auto containers = containersOf(item);
  return std::any_of(containers.begin(), containers.end(), [](QQuickItem* container) {
    const QQuickItem* mover = itemThatMoves(*container);
    return mover->property("busy").toBool() || mover->property("moving").toBool();
  });
}

bool isDrawnAfter(const QQuickItem& item, const QQuickItem& other) {
  if (isAround(&other, item)) return true;
  const QQuickItem* common = item.parentItem();
  while (common != nullptr && !isAround(common, other)) common = common->parentItem();
  if (common == nullptr) return false;
  const QQuickItem* first = childOf(*common, &other);
  const QQuickItem* second = childOf(*common, &item);
  if (first->z() != second->z()) return first->z() < second->z();
  const auto children = common->childItems();
  return children.indexOf(first) < children.indexOf(second);
}

}  // namespace kelvo::qt
