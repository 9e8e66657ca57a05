#pragma once

#include <memory>
#include <vector>

#include "kelvo/ViewTree.h"

namespace kelvo::qt {

/// Returns the visible Qt Quick windows, with their items as views. The delegates of a `ListView` and a `GridView` are
/// cells, in section 0.
///
/// Each window and view holds its object weakly, and is an empty, hidden view once the object is deleted. Thread: the
/// main thread only; windows and views may be released on any thread.
[[nodiscard]] std::vector<std::shared_ptr<Window>> visibleWindows();

}  // namespace kelvo::qt
