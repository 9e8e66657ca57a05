#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kelvo {

class KLVView;
class View;

/// Finds views of the host's interface, by tag, native id or path.
///
/// A path lookup first copies the key window's visible and relevant views into a tree of `KLVView`, sorts it in reading
/// order, and then follows the path. nullptr means no view. Thread: the main queue only, except where noted.
namespace KLVUtilities {

/// Sets whether a cross-platform framework draws the host's interface. If so, every view is relevant, and native ids
/// identify views. Thread-safe.
void setIsReactNative(bool isReactNative) noexcept;
[[nodiscard]] bool isReactNative() noexcept;

/// Looks up a view of the key window. `searchType`: "i" by native id or tag, "t" by tag, "p" by path; any other by tag
/// first, then by path.
std::shared_ptr<View> getViewWithIdentifier(const std::optional<std::string>& identifier, std::string_view searchType);
/// Looks up a native id in `view` if a framework draws the interface, else a tag.
/// Kept: looks for a tag in the key window, whatever `view` is.
std::shared_ptr<View> getViewWithTAG(const std::optional<std::string>& identifier, const std::shared_ptr<View>& view);
/// Returns the first view with the native id, depth first; `view` itself comes first.
std::shared_ptr<View> getReactNativeViewWithNativeID(const std::string& identifier, const std::shared_ptr<View>& view);
/// Returns nullopt if the view has no native id or the id is not a text.
std::optional<std::string> getNativeIDForView(const View& view);
/// Returns "buy" for "[klv_buy_klv]".
std::string getNativeIDFromIndentifier(const std::string& identifier);
/// Looks up `path` below `view`. A path is a list of steps, joined by ":". A step is a class name, ":" and a position
/// among its siblings (of a cell: its tag), or, if a framework draws the interface, a native id such as
/// "[klv_buy_klv]". The path may begin at any depth below `view`. Ignores every "KLV:" in `path`.
/// Overwrites the tags of all visible cells below `view`.
std::shared_ptr<View> getViewWithPath(const std::string& path, const std::shared_ptr<View>& view);
/// Looks up `path`, without "KLV:", in a simplified tree that is already sorted.
std::shared_ptr<View> getViewWithIdentifier(std::string_view path, const KLVView& root);
/// Returns true for an empty text and for a text of decimal digits: the positions in a path. Thread-safe.
bool isNumericString(std::string_view text);

/// Returns true if the simplified tree shows the view: if it is of a class that users see or touch, such as a button
/// or a label, or derives from one.
bool shouldConsiderView(const View& view);
/// Returns the classes whose views, with everything below them, never get into the simplified tree.
[[nodiscard]] std::span<const std::string_view> ignoredViews() noexcept;
/// Copies the relevant views below `view` to `root`; skips the others but visits their children. Skips hidden views and
/// the classes `ignoredViews` with everything below them. Sets the tags of cells to their places.
/// `tableView` and `collectionView` are the nearest ones above `view`, nullptr for none.
void constructCustomViewHierarchyForView(const View& view, KLVView& root,
                                         std::span<const std::string_view> ignoredViews, const View* tableView,
                                         const View* collectionView);
/// Sorts the nodes of every level in reading order; cells by their tags.
void sortSubViewsWithRootView(KLVView& root);
/// Writes one debug line per node: "<>", `separator`, one more "-" per level, and the node's name.
void logKLVViewWithRoot(const KLVView& root, const std::string& separator);
/// Writes the simplified tree of the key window in this form, then one debug line "Path KLV:..." for each of its views.
/// Also sets the tags of cells. Does nothing if the log level hides debug lines.
void printViewTree();
/// As `logKLVViewWithRoot`, for the host's views instead of nodes.
void logViewWithRoot(const View& view, const std::string& separator);

}  // namespace KLVUtilities
}  // namespace kelvo
