#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "kelvo/ViewTree.h"

namespace kelvo::qt {

/// The live widgets of the application. Each search sees them as they are: an object made here holds its widget
/// weakly, and answers as an empty, hidden view once that is deleted.
class WidgetTree final : public ViewTree {
 public:
  using ShownNow = std::function<std::shared_ptr<ViewController>()>;

  /// Both are called on the main thread: `whenLookedAt` each time that the library asks for the windows, which it does
  /// for the first time when it starts, and `shownNow` for the screen that shows then, nullptr for none.
  WidgetTree(std::function<void()> whenLookedAt, ShownNow shownNow)
      : whenLookedAt_(std::move(whenLookedAt)), shownNow_(std::move(shownNow)) {}

  [[nodiscard]] std::vector<std::shared_ptr<Window>> windows() override;
  [[nodiscard]] std::optional<Font> font(const Dictionary& attributes, double size) const override;

 private:
  std::function<void()> whenLookedAt_;
  ShownNow shownNow_;
};

}  // namespace kelvo::qt
