#include "adapters/qt/ItemCells.h"

#include <QHash>
#include <QHeaderView>
#include <QListView>
#include <QPersistentModelIndex>
#include <QTableView>
#include <QTreeView>
#include <algorithm>
#include <utility>

#include "adapters/qtgui/WeakObject.h"

namespace kelvo::qt {
namespace {

/// The state that all cells of one row share. Read and written on the main thread only; cells may be released on any
/// thread.
struct Row {
  QPersistentModelIndex index;
  std::int64_t tag = 0;
};

/// The rows of one item view that have a cell or a tag. A child object of the view, so it is deleted with the view.
class Rows final : public QObject {
 public:
  static Rows& of(QAbstractItemView& items) {
    for (QObject* child : items.children()) {
      if (auto* rows = dynamic_cast<Rows*>(child)) return *rows;
    }
    return *std::make_unique<Rows>(&items).release();  // its parent owns it
  }
  explicit Rows(QObject* parent) : QObject(parent) {}
  ~Rows() override {
    // A cell may outlive its view and be released on another thread. An index in it would then change the model there.
    for (const auto& row : rows_) row->index = QPersistentModelIndex();
  }

  /// Returns the row's state, made on first use.
  std::shared_ptr<Row> at(const QModelIndex& index) {
    auto& row = rows_[index];
    if (row == nullptr) row = std::make_shared<Row>(Row{index, 0});
    return row;
  }
  void forgetUnused() {
    rows_.removeIf([](const auto& entry) {
      return !entry.key().isValid() || (entry.value()->tag == 0 && entry.value().use_count() == 1);
    });
  }

 private:
  QHash<QPersistentModelIndex, std::shared_ptr<Row>> rows_;
};

/// One row of an item view as a view.
class Cell final : public View {
 public:
  Cell(QAbstractItemView& items, std::shared_ptr<Row> row) : items_(&items), row_(std::move(row)) {}

  [[nodiscard]] std::string className() const override {
    return isCollection() ? "UICollectionViewCell" : "UITableViewCell";
  }
  [[nodiscard]] Rect frame() const override {
    if (!isShown()) return {};
    const QModelIndex index = row_->index;
    QRect place;
    for (int column = 0; column < index.model()->columnCount(index.parent()); ++column) {
      place |= items_->visualRect(index.siblingAtColumn(column));
    }
    const QPoint corner = items_->viewport()->mapTo(items_->window(), place.topLeft());
    return {double(corner.x()), double(corner.y()), double(place.width()), double(place.height())};
  }
  [[nodiscard]] bool isHidden() const override { return !isShown(); }
  [[nodiscard]] std::int64_t tag() const override { return isShown() ? row_->tag : 0; }
  void setTag(std::int64_t tag) override {
    if (isShown()) row_->tag = tag;
  }

  [[nodiscard]] std::optional<IndexPath> placeIn(const QWidget& items) const {
    if (!isShown() || items_.get() != &items) return std::nullopt;
    const int row = row_->index.row();
    if (qobject_cast<const QTreeView*>(&items) == nullptr) return IndexPath{0, row};
    const QModelIndex parent = row_->index.parent();
    return parent == items_->rootIndex() ? IndexPath{row, 0} : IndexPath{parent.row(), row + 1};
  }

 private:
  [[nodiscard]] bool isShown() const {
    return items_ && row_->index.isValid() && row_->index.model() == items_->model();
  }
  [[nodiscard]] bool isCollection() const {
    const auto* list = qobject_cast<QListView*>(items_.get());
    return list != nullptr && list->viewMode() == QListView::IconMode;
  }

  WeakObject<QAbstractItemView> items_;
  std::shared_ptr<Row> row_;
};

constexpr int kProbeStep = 8;  // pixels; rows are taller

/// Returns the x, in the viewport, of the edge at which text begins.
int nearEdge(const QAbstractItemView& items) {
  return items.isRightToLeft() ? items.viewport()->width() - 2 : 1;
}

/// Returns the visible rows of a tree, from the top edge to the bottom edge.
std::vector<QModelIndex> shownRows(const QTreeView& tree) {
  std::vector<QModelIndex> rows;
  const int bottom = tree.viewport()->height();
  const QModelIndex root = tree.rootIndex();
  for (QModelIndex at = tree.indexAt({nearEdge(tree), 0}); at.isValid(); at = tree.indexBelow(at)) {
    if (tree.visualRect(at).top() > bottom) break;
    const QModelIndex parent = at.parent();
    if (parent == root || parent.parent() == root) rows.push_back(at.siblingAtColumn(0));
  }
  return rows;
}

/// Returns the visible rows of a table. The vertical header decides, because columns may be hidden or scrolled out of
/// sight, and the user may have moved rows.
std::vector<QModelIndex> shownRows(const QTableView& table) {
  std::vector<QModelIndex> rows;
  const QHeaderView& header = *table.verticalHeader();
  for (int at = std::max(0, header.visualIndexAt(0)); at < header.count(); ++at) {
    const int row = header.logicalIndex(at);
    if (header.isSectionHidden(row)) continue;
    if (header.sectionViewportPosition(row) >= table.viewport()->height()) break;
    rows.push_back(table.model()->index(row, 0, table.rootIndex()));
  }
  return rows;
}

/// Returns the row of the first item at or below the top edge; items may have space between them. 0 if there is none.
int firstShownRow(const QAbstractItemView& items) {
  for (int y = 1; y < items.viewport()->height(); y += kProbeStep) {
    if (const QModelIndex index = items.indexAt({nearEdge(items), y}); index.isValid()) return index.row();
  }
  return 0;
}

/// Returns the visible rows of a list or another item view.
///
/// Rows grow downwards or, in a list that wraps, sideways. So the loop begins with the item at the top edge and ends at
/// the first row beyond the viewport. Icons that the user can move are in no order, so the loop checks all of them.
std::vector<QModelIndex> shownRows(const QAbstractItemView& items) {
  std::vector<QModelIndex> rows;
  const auto* list = qobject_cast<const QListView*>(&items);
  const bool isInOrder = list == nullptr || list->movement() == QListView::Static;
  const int column = list != nullptr ? list->modelColumn() : 0;
  const QModelIndex root = items.rootIndex();
  const QRect window = items.viewport()->rect();
  const int count = items.model()->rowCount(root);
  for (int row = isInOrder ? firstShownRow(items) : 0; row < count; ++row) {
    const QModelIndex index = items.model()->index(row, column, root);
    const QRect place = items.visualRect(index);
    if (place.isEmpty()) continue;  // a hidden row
    if (window.intersects(place)) {
      rows.push_back(index);
    } else if (isInOrder && (place.top() > window.bottom() || place.left() > window.right())) {
      break;
    }
  }
  return rows;
}

std::vector<QModelIndex> shownRowsOf(const QAbstractItemView& items) {
  if (qobject_cast<const QHeaderView*>(&items) != nullptr || items.model() == nullptr) return {};
  if (const auto* tree = qobject_cast<const QTreeView*>(&items)) return shownRows(*tree);
  if (const auto* table = qobject_cast<const QTableView*>(&items)) return shownRows(*table);
  return shownRows(items);
}

}  // namespace

std::vector<std::shared_ptr<View>> cellsOf(QAbstractItemView& items) {
  std::vector<std::shared_ptr<View>> cells;
  const auto shown = shownRowsOf(items);
  if (shown.empty()) return cells;
  Rows& rows = Rows::of(items);
  rows.forgetUnused();
  for (const QModelIndex& index : shown) cells.push_back(std::make_shared<Cell>(items, rows.at(index)));
  return cells;
}

std::optional<IndexPath> placeOf(const View& cell, const QWidget& items) {
  const auto* row = dynamic_cast<const Cell*>(&cell);
  return row != nullptr ? row->placeIn(items) : std::nullopt;
}

}  // namespace kelvo::qt
