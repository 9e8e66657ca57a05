#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kelvo/ViewTree.h"

namespace kelvo {

/// A node of the simplified copy of a view tree in which paths are searched. Lives for one search, on the main queue.
class KLVView {
 public:
  /// Without subviews, named after the view's class.
  explicit KLVView(std::shared_ptr<View> itsView) : view(std::move(itsView)), name(view ? view->className() : "") {}

  std::shared_ptr<View> view;
  std::string name;
  std::vector<KLVView> subviews;
};

}  // namespace kelvo
