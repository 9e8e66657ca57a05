#include "kelvo/ViewTree.h"

namespace kelvo {

// Defined here, so that only the shared library has the virtual tables of these classes.
View::~View() = default;
ViewController::~ViewController() = default;
Window::~Window() = default;
ViewTree::~ViewTree() = default;

std::optional<Font> ViewTree::font(const Dictionary&, double) const {
  return std::nullopt;
}

}  // namespace kelvo
