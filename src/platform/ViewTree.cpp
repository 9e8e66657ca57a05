#include "kelvo/ViewTree.h"

namespace kelvo {

// The classes' tables stand here, so that the shared library holds the only ones.
View::~View() = default;
ViewController::~ViewController() = default;
Window::~Window() = default;
ViewTree::~ViewTree() = default;

std::optional<Font> ViewTree::font(const Dictionary&, double) const {
  return std::nullopt;
}

}  // namespace kelvo
