#include "util/KLVUtilities+Views.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "kelvo/ViewTree.h"
#include "platform/HostInterface.h"
#include "platform/ProcessWide.h"
#include "util/KLVLogger.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+Interface.h"
#include "util/KLVView.h"

namespace kelvo {
namespace {

constexpr std::string_view kByNativeId = "i";
constexpr std::string_view kByTag = "t";
constexpr std::string_view kByPath = "p";
constexpr std::string_view kPathPrefix = "KLV:";
constexpr std::string_view kNativeIdPrefix = "[klv_";
constexpr std::string_view kNativeIdSuffix = "_klv]";
constexpr const char* kTableView = "UITableView";
constexpr const char* kTableViewCell = "UITableViewCell";
constexpr const char* kCollectionView = "UICollectionView";
constexpr const char* kCollectionViewCell = "UICollectionViewCell";
/// Views form a row if their centres differ vertically by no more than this many points.
constexpr double kRowTolerance = 5;

// Kept: the list has the class of images, but not the class of image views.
constexpr const char* kConsideredClasses[] = {
    kCollectionView,      kCollectionViewCell, kTableView,  kTableViewCell,    "UIStackView",  "UIImage",
    "UIPickerView",       "UIProgressView",    "UIControl", "UIButton",        "UIDatePicker", "UIPageControl",
    "UISegmentedControl", "UISlider",          "UIStepper", "UISwitch",        "UILabel",      "UITextField",
    "UITextView",         "UIBarButtonItem",   "UIBarItem", "UINavigationBar", "UISearchBar",  "UIToolbar",
    "UITabBar",           "UITabBarItem"};

constexpr std::string_view kIgnoredClasses[] = {"UIVisualEffect", "UIVisualEffectView", "UIVibrancyEffect",
                                                "UIBlurEffect"};

std::atomic<bool> drawnByFramework{false};
[[maybe_unused]] const ResetAtEnd frameworkIsReset([] { drawnByFramework = false; });

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

/// Returns the number at the start of `digits`: 0 if there is none, the largest 64-bit integer if it is larger.
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

/// Returns the digits of section and row as one number: 112 for section 1, row 12. A cell without a container, or
/// unknown to it, counts as section 0, row 0.
std::int64_t tagOfCell(const View& cell, const View* container) {
  const auto path = container != nullptr ? container->indexPathForCell(cell) : std::nullopt;
  const IndexPath place = path.value_or(IndexPath());
  return integerValue(std::to_string(place.section) + std::to_string(place.row));
}

/// A node with its sort keys.
struct Placed {
  KLVView node;
  bool isCell;
  std::int64_t tag;
  double x, y;  // the centre
};

Placed placed(KLVView&& node) {
  const Rect frame = node.view->frame();
  const bool cell = isCell(*node.view);
  const std::int64_t tag = node.view->tag();
  return {std::move(node), cell, tag, frame.x + frame.width / 2, frame.y + frame.height / 2};
}

bool comesBefore(const Placed& first, const Placed& second) {
  if (first.isCell && second.isCell) return first.tag < second.tag;
  if (std::abs(first.y - second.y) > kRowTolerance) return first.y < second.y;
  return first.x < second.x;
}

/// Sorts the nodes by a stable merge sort. The standard library's sorts are undefined for this order, because "in the
/// same row" is not transitive.
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
    const bool takesRight = left == first.end() || (right != second.end() && comesBefore(*right, *left));
    place = std::move(takesRight ? *right++ : *left++);
  }
}

/// The first two parts of a path, and the rest after each.
struct PathStart {
  explicit PathStart(std::string_view path) {
    const auto first = path.find(':');
    name = path.substr(0, first);
    if (first == std::string_view::npos) return;
    afterName = path.substr(first + 1);
    const auto second = afterName->find(':');
    position = afterName->substr(0, second);
    if (second != std::string_view::npos) afterPosition = afterName->substr(second + 1);
  }
  std::string_view name, position;
  std::optional<std::string_view> afterName, afterPosition;  // nullopt where the path ends
};

/// Returns the position of a child among its siblings as a path names it: of a cell, its tag.
std::int64_t positionOf(const KLVView& child, std::size_t index) {
  return isCell(*child.view) ? child.view->tag() : static_cast<std::int64_t>(index);
}

KLVView simplifiedTree(const std::shared_ptr<View>& view) {
  KLVView root(view);
  KLVUtilities::constructCustomViewHierarchyForView(*view, root, KLVUtilities::ignoredViews(), nullptr, nullptr);
  KLVUtilities::sortSubViewsWithRootView(root);
  return root;
}

/// Writes one debug line per view below `root`: its path, which begins with `start`.
void logPaths(const KLVView& root, const std::string& start) {
  for (std::size_t i = 0; i < root.subviews.size(); ++i) {
    const KLVView& child = root.subviews[i];
    const std::string path = start + child.name + ":" + std::to_string(positionOf(child, i));
    KLV_DEBUG("Path {}", path);
    logPaths(child, path + ":");
  }
}

/// Whether the first step of a path matches a child. If so, `rest` is the path to follow below the child, nullopt at
/// the end of the path.
struct Match {
  bool matches = false;
  std::optional<std::string_view> rest;
};

Match match(const PathStart& start, const KLVView& child, std::size_t index) {
  if (KLVUtilities::isReactNative() && start.name.substr(0, kNativeIdPrefix.size()) == kNativeIdPrefix) {
    const auto nativeId = KLVUtilities::getNativeIDForView(*child.view);
    return {nativeId == KLVUtilities::getNativeIDFromIndentifier(std::string(start.name)), start.afterName};
  }
  const bool named = start.name == child.name && start.afterName && KLVUtilities::isNumericString(start.position);
  if (!named) return {};
  return {positionOf(child, index) == integerValue(start.position), start.afterPosition};
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
  if (searchType != kByPath) {
    KLV_DEBUG("Searching for view with nativeID/TAG: {}", *identifier);
    auto found = getViewWithTAG(identifier, window);
    if (found != nullptr || searchType == kByNativeId || searchType == kByTag) return found;
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
  return nativeId->asText();
}

std::string KLVUtilities::getNativeIDFromIndentifier(const std::string& identifier) {
  std::string bare = identifier;
  removeAll(bare, kNativeIdPrefix);
  removeAll(bare, kNativeIdSuffix);
  return bare;
}

std::shared_ptr<View> KLVUtilities::getViewWithPath(const std::string& path, const std::shared_ptr<View>& view) {
  if (view == nullptr) return nullptr;
  std::string bare = path;
  removeAll(bare, kPathPrefix);
  return getViewWithIdentifier(std::string_view(bare), simplifiedTree(view));
}

std::shared_ptr<View> KLVUtilities::getViewWithIdentifier(std::string_view path, const KLVView& root) {
  const PathStart start(path);
  for (std::size_t i = 0; i < root.subviews.size(); ++i) {
    const KLVView& child = root.subviews[i];
    const Match step = match(start, child, i);
    if (step.matches && !step.rest) return child.view;
    // If the step does not match this child, it may match a view below it.
    if (auto found = getViewWithIdentifier(step.matches ? *step.rest : path, child)) return found;
  }
  return nullptr;
}

bool KLVUtilities::isNumericString(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char character) { return character >= '0' && character <= '9'; });
}

std::span<const std::string_view> KLVUtilities::ignoredViews() noexcept {
  return kIgnoredClasses;
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
                                                       std::span<const std::string_view> ignoredViews,
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

void KLVUtilities::printViewTree() {
  if (!KLVLogger::writes(KLVLogger::Level::debug)) return;
  const std::shared_ptr<View> window = keyWindow();
  if (window == nullptr) {
    KLV_WARN("There is no key window whose views could be printed");
    return;
  }
  const KLVView root = simplifiedTree(window);
  logKLVViewWithRoot(root, "");
  logPaths(root, std::string(kPathPrefix));
}

void KLVUtilities::logViewWithRoot(const View& view, const std::string& separator) {
  KLV_DEBUG("<>{}{}", separator, view.className());
  for (const auto& subview : view.subviews()) {
    if (subview != nullptr) logViewWithRoot(*subview, separator + "-");
  }
}

}  // namespace kelvo
