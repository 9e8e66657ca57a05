#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvo {

class KLVView;
class View;

/// Finds views of the host's interface. Called on the main queue only, except where noted. nullptr means no view, in
/// and out.
namespace KLVUtilities {

/// In a host whose interface is drawn by a cross-platform framework, every view counts and identifiers of views are
/// native ids. Any thread.
void setIsReactNative(bool isReactNative) noexcept;
[[nodiscard]] bool isReactNative() noexcept;

/// Searches the key window. `searchType`: "i" by native id or tag, "t" by tag, "p" by path; any other by tag first,
/// then by path.
std::shared_ptr<View> getViewWithIdentifier(const std::optional<std::string>& identifier, std::string_view searchType);
/// Kept: a tag is searched in the key window, whatever `view` is.
std::shared_ptr<View> getViewWithTAG(const std::optional<std::string>& identifier, const std::shared_ptr<View>& view);
/// Depth first, `view` itself included.
std::shared_ptr<View> getReactNativeViewWithNativeID(const std::string& identifier, const std::shared_ptr<View>& view);
std::optional<std::string> getNativeIDForView(const View& view);
/// buy of "[klv_buy_klv]".
std::string getNativeIDFromIndentifier(const std::string& identifier);
/// `path`: steps joined by ":", each a class name, ":" and a position, or a native-id identifier; it may begin at
/// any depth below `view`. "KLV:" in it is left out. Overwrites the tags of all visible cells below `view`.
std::shared_ptr<View> getViewWithPath(const std::string& path, const std::shared_ptr<View>& view);
/// The same in a tree that is built and sorted.
std::shared_ptr<View> getViewWithIdentifier(std::string_view path, const KLVView& root);

bool shouldConsiderView(const View& view);
[[nodiscard]] const std::vector<std::string>& ignoredViews();
/// Hangs the considered views below `view` under `root`, those of views that are not considered one level higher,
/// and writes the tags of cells. `tableView` and `collectionView`: the nearest ones above, nullptr for none.
void constructCustomViewHierarchyForView(const View& view, KLVView& root, const std::vector<std::string>& ignoredViews,
                                         const View* tableView, const View* collectionView);
/// In reading order, at every level; cells by their tags.
void sortSubViewsWithRootView(KLVView& root);
/// A debug line a node: "<>", one "-" a level behind `separator`, and the name.
void logKLVViewWithRoot(const KLVView& root, const std::string& separator);
/// The same of the views as they are.
void logViewWithRoot(const View& view, const std::string& separator);

}  // namespace KLVUtilities
}  // namespace kelvo
