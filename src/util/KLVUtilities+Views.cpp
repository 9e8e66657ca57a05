#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <limits>
#include <utility>

#include "kelvo/ViewTree.h"
#include "platform/HostInterface.h"
#include "util/KLVLogger.h"
#include "util/KLVUtilities.h"
#include "util/KLVView.h"

namespace kelvo {
namespace {

constexpr std::string_view kPathPrefix = "KLV:";
constexpr std::string_view kNativeIdPrefix = "[klv_";
constexpr std::string_view kNativeIdSuffix = "_klv]";
constexpr const char* kTableView = "UITableView";
constexpr const char* kTableViewCell = "UITableViewCell";
constexpr const char* kCollectionView = "UICollectionView";
constexpr const char* kCollectionViewCell = "UICollectionViewCell";
/// Views whose centres differ by no more than this many points stand in one row.
constexpr double kRowTolerance = 5;

// Kept: the class of images is among them, that of image views is not.
constexpr const char* kConsideredClasses[] = {
    kCollectionView,      kCollectionViewCell, kTableView,  kTableViewCell,    "UIStackView",  "UIImage",
    "UIPickerView",       "UIProgressView",    "UIControl", "UIButton",        "UIDatePicker", "UIPageControl",
    "UISegmentedControl", "UISlider",          "UIStepper", "UISwitch",        "UILabel",      "UITextField",
    "UITextView",         "UIBarButtonItem",   "UIBarItem", "UINavigationBar", "UISearchBar",  "UIToolbar",
    "UITabBar",           "UITabBarItem"};

std::atomic<bool> drawnByFramework{false};

bool isOfClass(const View& view, std::string_view name) {
  if (view.className() == name) return true;
  const auto classes = view.superclassNames();
  return std::find(classes.begin(), classes.end(), name) != classes.end();
}

bool isCell(const View& view) {
  return isOfClass(view, kTableViewCell) || isOfClass(view, kCollectionViewCell);
}

void removeAll(std::string& text, std::string_view part) {
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at)) text.erase(at, part.size());
}

/// The number that `digits` begin with; the largest there is for one that is larger, 0 for none.
std::int64_t integerValue(std::string_view digits) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return error == std::errc::result_out_of_range ? std::numeric_limits<std::int64_t>::max() : number;
}

std::shared_ptr<View> viewWithTag(std::int64_t tag, const std::shared_ptr<View>& view) {
  if (view == nullptr || view->tag() == tag) return view;
  for (const auto& subview : view->subviews()) {
    if (auto found = viewWithTag(tag, subview)) return found;
  }
  return nullptr;
}

/// Section and row, written one behind the other: 112 for section 1, row 12. A cell that its table does not know, or
/// that is in none, is the first one.
std::int64_t tagOfCell(const View& cell, const View* container) {
  const auto path = container != nullptr ? container->indexPathForCell(cell) : std::nullopt;
  const IndexPath place = path.value_or(IndexPath());
  return integerValue(std::to_string(place.section) + std::to_string(place.row));
}

/// A node with what its order goes by.
struct Placed {
  KLVView node;
  bool isCell;
  std::int64_t tag;
  double x, y;  // of the centre
};

Placed placed(KLVView&& node) {
  const Rect frame = node.view->frame();
  const bool cell = isCell(*node.view);
  const std::int64_t tag = node.view->tag();
  return {std::move(node), cell, tag, frame.x + frame.width / 2, frame.y + frame.height / 2};
}

bool standsBefore(const Placed& first, const Placed& second) {
  if (first.isCell && second.isCell) return first.tag < second.tag;
  if (std::abs(first.y - second.y) > kRowTolerance) return first.y < second.y;
  return first.x < second.x;
}

/// Merge sort of our own: being in one row is not transitive, and the standard library's sorts are undefined for such
/// an order. What compares equal stays in its order.
void sortInReadingOrder(std::vector<Placed>& nodes) {
  if (nodes.size() < 2) return;
  const auto middle = nodes.begin() + static_cast<std::ptrdiff_t>(nodes.size() / 2);
  std::vector<Placed> first(std::make_move_iterator(nodes.begin()), std::make_move_iterator(middle));
  std::vector<Placed> second(std::make_move_iterator(middle), std::make_move_iterator(nodes.end()));
  sortInReadingOrder(first);
  sortInReadingOrder(second);
  auto left = first.begin();
  auto right = second.begin();
  for (Placed& place : nodes) {
    const bool takesRight = left == first.end() || (right != second.end() && standsBefore(*right, *left));
    place = std::move(takesRight ? *right++ : *left++);
  }
}

/// The first two steps of a path, and where they end.
struct PathStart {
  explicit PathStart(std::string_view path) {
    const auto first = path.find(':');
    name = path.substr(0, first);
    if (first == std::string_view::npos) return;
    behindName = path.substr(first + 1);
    const auto second = behindName->find(':');
    position = behindName->substr(0, second);
    if (second != std::string_view::npos) behindPosition = behindName->substr(second + 1);
  }
  std::string_view name, position;
  std::optional<std::string_view> behindName, behindPosition;  // nullopt where the path ends
};

/// What a step of a path says of one child: that it is not meant, or that what is left of the path, nullopt for
/// nothing, goes on below it.
struct Match {
  bool matches = false;
  std::optional<std::string_view> rest;
};

Match match(const PathStart& start, const KLVView& child, std::size_t index) {
  if (KLVUtilities::isReactNative() && start.name.substr(0, kNativeIdPrefix.size()) == kNativeIdPrefix) {
    const auto nativeId = KLVUtilities::getNativeIDForView(*child.view);
    return {nativeId == KLVUtilities::getNativeIDFromIndentifier(std::string(start.name)), start.behindName};
  }
  const bool named = start.name == child.name && start.behindName && KLVUtilities::isNumericString(start.position);
  if (!named) return {};
  const std::int64_t position = isCell(*child.view) ? child.view->tag() : static_cast<std::int64_t>(index);
  return {position == integerValue(start.position), start.behindPosition};
}

Font fontWith(const Dictionary& attributes, double size) {
  const auto tree = HostInterface::viewTree();
  const auto font = tree != nullptr ? tree->font(attributes, size) : std::nullopt;
  return font.value_or(Font{"", size});
}

/// `mark` is what the name of a font with this face contains.
Font fontWithFace(const std::string& family, const char* face, std::string_view mark, double size) {
  Font font = fontWith({{kFontFamilyAttribute, family}, {kFontFaceAttribute, face}}, size);
  return font.name.find(mark) != std::string::npos ? font : fontWith({{kFontFaceAttribute, face}}, size);
}

double usable(double size) {
  return size >= 1 ? size : 16;
}

}  // namespace

void KLVUtilities::setIsReactNative(bool isReactNative) noexcept {
  drawnByFramework = isReactNative;
}

bool KLVUtilities::isReactNative() noexcept {
  return drawnByFramework;
}

std::shared_ptr<View> KLVUtilities::getViewWithIdentifier(const std::optional<std::string>& identifier,
                                                          std::string_view searchType) {
  const std::shared_ptr<View> window = keyWindow();
  if (isInvalidString(identifier)) {
    KLV_ERROR("Invalid view ID provided");
    return nullptr;
  }
  if (searchType != "p") {
    KLV_DEBUG("Searching for view with nativeID/TAG: {}", *identifier);
    auto found = getViewWithTAG(identifier, window);
    if (found != nullptr || searchType == "i" || searchType == "t") return found;
  }
  KLV_DEBUG("Searching for view with path: {}", *identifier);
  return getViewWithPath(*identifier, window);
}

std::shared_ptr<View> KLVUtilities::getViewWithTAG(const std::optional<std::string>& identifier,
                                                   const std::shared_ptr<View>& view) {
  if (isReactNative()) {
    if (!identifier) {
      KLV_ERROR("Improper Identifier: {}", identifier);
      return nullptr;
    }
    const std::string first = identifier->substr(0, identifier->find(':'));
    KLV_DEBUG("Searching for view with nativeID: {}", first);
    return getReactNativeViewWithNativeID(first, view);
  }
  if (!identifier || !isNumericString(*identifier)) {
    KLV_ERROR("Improper tag given");
    return nullptr;
  }
  const std::int64_t tag = integerValue(*identifier);
  KLV_DEBUG("Searching for view with TAG: {}", tag);
  return viewWithTag(tag, keyWindow());
}

std::shared_ptr<View> KLVUtilities::getReactNativeViewWithNativeID(const std::string& identifier,
                                                                   const std::shared_ptr<View>& view) {
  if (view == nullptr || getNativeIDForView(*view) == getNativeIDFromIndentifier(identifier)) return view;
  for (const auto& subview : view->subviews()) {
    if (auto found = getReactNativeViewWithNativeID(identifier, subview)) return found;
  }
  return nullptr;
}

std::optional<std::string> KLVUtilities::getNativeIDForView(const View& view) {
  KLV_DEBUG("Getting NativeID for view: {}", view.className());
  const auto nativeId = view.nativeID();
  if (!nativeId) {
    KLV_DEBUG("Responds to selector - NO");
    return std::nullopt;
  }
  KLV_DEBUG("Responds to selector - YES");
  KLV_DEBUG("Responded to selector with value: {}", *nativeId);
  const auto* text = nativeId->get<std::string>();
  return text != nullptr ? std::optional(*text) : std::nullopt;
}

std::string KLVUtilities::getNativeIDFromIndentifier(const std::string& identifier) {
  std::string bare = identifier;
  removeAll(bare, kNativeIdPrefix);
  removeAll(bare, kNativeIdSuffix);
  return bare;
}

std::shared_ptr<View> KLVUtilities::getViewWithPath(const std::string& path, const std::shared_ptr<View>& view) {
  if (view == nullptr) return nullptr;
  KLVView root(view);
  constructCustomViewHierarchyForView(*view, root, ignoredViews(), nullptr, nullptr);
  sortSubViewsWithRootView(root);
  std::string bare = path;
  removeAll(bare, kPathPrefix);
  return getViewWithIdentifier(std::string_view(bare), root);
}

std::shared_ptr<View> KLVUtilities::getViewWithIdentifier(std::string_view path, const KLVView& root) {
  const PathStart start(path);
  for (std::size_t i = 0; i < root.subviews.size(); ++i) {
    const KLVView& child = root.subviews[i];
    const Match step = match(start, child, i);
    if (step.matches && !step.rest) return child.view;
    // A step that this child is not meant by may be meant by what lies below it.
    if (auto found = getViewWithIdentifier(step.matches ? *step.rest : path, child)) return found;
  }
  return nullptr;
}

const std::vector<std::string>& KLVUtilities::ignoredViews() {
  static const std::vector<std::string> names{"UIVisualEffect", "UIVisualEffectView", "UIVibrancyEffect",
                                              "UIBlurEffect"};
  return names;
}

bool KLVUtilities::shouldConsiderView(const View& view) {
  if (isReactNative()) return true;
  const std::string name = view.className();
  if (!name.empty() && name[0] == '_') return false;
  const auto superclasses = view.superclassNames();
  return std::any_of(std::begin(kConsideredClasses), std::end(kConsideredClasses), [&](std::string_view considered) {
    return name == considered || std::find(superclasses.begin(), superclasses.end(), considered) != superclasses.end();
  });
}

void KLVUtilities::constructCustomViewHierarchyForView(const View& view, KLVView& root,
                                                       const std::vector<std::string>& ignoredViews,
                                                       const View* tableView, const View* collectionView) {
  for (const auto& subview : view.subviews()) {
    const bool isSeen = subview != nullptr && !subview->isHidden() && subview->alpha() > 0;
    if (!isSeen || std::find(ignoredViews.begin(), ignoredViews.end(), subview->className()) != ignoredViews.end()) {
      continue;
    }
    if (!shouldConsiderView(*subview)) {
      constructCustomViewHierarchyForView(*subview, root, ignoredViews, tableView, collectionView);
      continue;
    }
    const View* table = isOfClass(*subview, kTableView) ? subview.get() : tableView;
    const View* collection = isOfClass(*subview, kCollectionView) ? subview.get() : collectionView;
    if (isOfClass(*subview, kTableViewCell)) {
      subview->setTag(tagOfCell(*subview, table));
    } else if (isOfClass(*subview, kCollectionViewCell)) {
      subview->setTag(tagOfCell(*subview, collection));
    }
    KLVView node(subview);
    constructCustomViewHierarchyForView(*subview, node, ignoredViews, table, collection);
    root.subviews.push_back(std::move(node));
  }
}

void KLVUtilities::sortSubViewsWithRootView(KLVView& root) {
  std::vector<Placed> nodes;
  nodes.reserve(root.subviews.size());
  for (KLVView& child : root.subviews) {
    sortSubViewsWithRootView(child);
    nodes.push_back(placed(std::move(child)));
  }
  sortInReadingOrder(nodes);
  root.subviews.clear();
  for (Placed& node : nodes) root.subviews.push_back(std::move(node.node));
}

void KLVUtilities::logKLVViewWithRoot(const KLVView& root, const std::string& separator) {
  KLV_DEBUG("<>{}{}", separator, root.name);
  for (const KLVView& child : root.subviews) logKLVViewWithRoot(child, separator + "-");
}

void KLVUtilities::logViewWithRoot(const View& view, const std::string& separator) {
  KLV_DEBUG("<>{}{}", separator, view.className());
  for (const auto& subview : view.subviews()) {
    if (subview != nullptr) logViewWithRoot(*subview, separator + "-");
  }
}

std::shared_ptr<Window> KLVUtilities::keyWindow() {
  const auto tree = HostInterface::viewTree();
  if (tree == nullptr) return nullptr;
  for (const auto& window : tree->windows()) {
    if (window != nullptr && window->isKey()) return window;
  }
  return nullptr;
}

std::shared_ptr<ViewController> KLVUtilities::topViewController(const std::shared_ptr<ViewController>& controller) {
  if (controller == nullptr) return nullptr;
  switch (controller->kind()) {
    case ViewController::Kind::tabBar: return topViewController(controller->selected());
    case ViewController::Kind::navigation: return topViewController(controller->visible());
    case ViewController::Kind::plain: break;
  }
  if (const auto presented = controller->presented()) return topViewController(presented);
  const auto children = controller->children();
  return children.empty() ? controller : topViewController(children.back());
}

bool KLVUtilities::isViewRectInsideWindowRect(const Rect& viewRect, const Rect& windowRect) {
  return viewRect.x >= windowRect.x && viewRect.y >= windowRect.y &&
         viewRect.x + viewRect.width <= windowRect.x + windowRect.width &&
         viewRect.y + viewRect.height <= windowRect.y + windowRect.height;
}

Font KLVUtilities::fontWithName(const std::optional<std::string>& name, double size) {
  if (isInvalidString(name)) return Font{"", usable(size)};
  return fontWith({{kFontNameAttribute, *name}}, usable(size));
}

Font KLVUtilities::fontWithName(const std::optional<std::string>& name, double size,
                                const std::optional<std::string>& style) {
  const std::string family = name.value_or("");
  if (style == "bold") return fontWithFace(family, "Bold", "Bold", usable(size));
  if (style == "italic") return fontWithFace(family, "Italic", "Italic", usable(size));
  if (style == "bold_italic" || style == "bolditalic") {
    return fontWithFace(family, "Bold Italic", "BoldItalic", usable(size));
  }
  return fontWithName(family, size);
}

Color KLVUtilities::colorFromHexString(const std::optional<std::string>& text) {
  if (isInvalidString(text) || text->find('#') == std::string::npos || *text == "#") return {};
  // Kept: the first character is left out, whether or not it is the "#".
  std::string_view digits = std::string_view(*text).substr(1);
  digits.remove_prefix(std::min(digits.find_first_not_of(" \t\r\n"), digits.size()));
  if (digits.substr(0, 2) == "0x" || digits.substr(0, 2) == "0X") digits.remove_prefix(2);
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number, 16);
  if (error == std::errc::result_out_of_range) number = std::numeric_limits<std::uint32_t>::max();
  const auto part = [number](int shift) { return (number >> shift & 0xFFU) / 255.0; };
  return {part(16), part(8), part(0), 1};
}

}  // namespace kelvo
