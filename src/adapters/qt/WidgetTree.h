#pragma once

#include <memory>
#include <vector>

#include "kelvo/ViewTree.h"

namespace kelvo::qt {

/// Returns the visible windows of the application's widgets.
///
/// Each window and view holds its widget weakly, and is an empty, hidden view once the widget is deleted. Thread: the
/// main thread only; windows and views may be released on any thread.
[[nodiscard]] std::vector<std::shared_ptr<Window>> visibleWidgetWindows();

}  // namespace kelvo::qt
