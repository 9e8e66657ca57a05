#pragma once

#include <QAbstractItemView>
#include <memory>
#include <optional>
#include <vector>

#include "kelvo/ViewTree.h"

namespace kelvo::qt {

/// Returns the visible rows of an item view as cells. Thread: the main thread only; cells may be released on any
/// thread.
///
/// Row n of a list or a table is at (section 0, row n). In a tree, top-level entry n is at (n, 0) and its child m at
/// (n, m + 1); deeper entries are not cells.
[[nodiscard]] std::vector<std::shared_ptr<View>> cellsOf(QAbstractItemView& items);

/// Returns the place of `cell` in `items`, nullopt if `cell` is not a visible cell of `items`. Thread: the main thread.
[[nodiscard]] std::optional<IndexPath> placeOf(const View& cell, const QWidget& items);

}  // namespace kelvo::qt
