#pragma once

#include <QRect>
#include <QWindow>
#include <memory>
#include <vector>

#include "kelvo/ViewTree.h"

namespace kelvo::qt {

/// Returns the visible Qt Quick windows, with their items as views. The delegates of a `ListView`, a `GridView` and a
/// `TableView` are cells, in section 0. Those of a `TableView` count in reading order.
///
/// Each window and view holds its object weakly, and is an empty, hidden view once the object is deleted. Thread: the
/// main thread only; windows and views may be released on any thread.
[[nodiscard]] std::vector<std::shared_ptr<Window>> visibleItemWindows();

/// Returns the items that a QQuickWidget draws in the area `place` of `window`, in the same way.
[[nodiscard]] std::vector<std::shared_ptr<View>> itemsInside(const QWindow& window, const QRect& place);

}  // namespace kelvo::qt
