#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kelvo/ViewTree.h"

namespace kelvo {

/// A node of a simplified copy of the view tree, in which the library looks up paths. It lives for one lookup.
/// Thread: the main queue.
class KLVView {
 public:
  /// Makes a node without subviews, named after the view's class.
  explicit KLVView(std::shared_ptr<View> itsView) : view(std::move(itsView)), name(view ? view->className() : "") {}

  std::shared_ptr<View> view;
  std::string name;
  std::vector<KLVView> subviews;
};

}  // namespace kelvo
