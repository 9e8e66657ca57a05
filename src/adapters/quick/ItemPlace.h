#pragma once

#include <QQuickItem>
#include <vector>

namespace kelvo::qt {

/// Where an item is: in the current items of its containers, and in which order items are drawn. A container is a
/// `StackView` or a `SwipeView`. Thread: the main thread only.

/// Returns the containers around `item`, the innermost one first.
[[nodiscard]] std::vector<QQuickItem*> containersOf(const QQuickItem& item);
/// Returns the item whose movement changes the current item of `container`: of a `SwipeView`, the list of its pages.
[[nodiscard]] QQuickItem* itemThatMoves(QQuickItem& container);

/// Returns whether `item` is visible, and is in the current item of each container around it. An empty `Loader` is not
/// visible. A `SwipeView` has several visible items, and one current item.
[[nodiscard]] bool isInCurrentItems(const QQuickItem& item);
/// Returns whether a container around `item` moves from one item to another.
[[nodiscard]] bool isMoving(const QQuickItem& item);

/// Returns whether `item` is drawn after `other`, an item of the same window, and so may cover it. An item is drawn
/// after the items around it.
[[nodiscard]] bool isDrawnAfter(const QQuickItem& item, const QQuickItem& other);

}  // namespace kelvo::qt
