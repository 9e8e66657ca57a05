#pragma once

#include <QAbstractItemView>
#include <memory>
#include <optional>
#include <vector>

#include "kelvo/ViewTree.h"

namespace kelvo::qt {

/// The rows that an item view shows at the moment, as cells: a list's or table's in section 0; of a tree, top-level
/// entry n as (n, 0), and its child m as (n, m + 1).
[[nodiscard]] std::vector<std::shared_ptr<View>> cellsOf(QAbstractItemView& items);

/// Where `cell` stands when it is one of `items`'; nullopt otherwise.
[[nodiscard]] std::optional<IndexPath> placeOf(const View& cell, const QWidget& items);

}  // namespace kelvo::qt
