#include "util/KLVUtilities+Interface.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "kelvo/ViewTree.h"
#include "platform/HostInterface.h"
#include "util/KLVUtilities+Cleaning.h"

namespace kelvo {
namespace {

constexpr double kDefaultFontSize = 16;  // points

Font fontWith(const Dictionary& attributes, double size) {
  const auto tree = HostInterface::viewTree();
  const auto font = tree != nullptr ? tree->font(attributes, size) : std::nullopt;
  return font.value_or(Font{"", size});
}

/// Returns the font of `family` with `face`. Returns any font with `face` if the name of the first one lacks `mark`.
Font fontWithFace(const std::string& family, const char* face, std::string_view mark, double size) {
  Font font = fontWith({{kFontFamilyAttribute, family}, {kFontFaceAttribute, face}}, size);
  return font.name.find(mark) != std::string::npos ? font : fontWith({{kFontFaceAttribute, face}}, size);
}

double usableSize(double size) {
  return size >= 1 ? size : kDefaultFontSize;
}

}  // namespace

std::shared_ptr<Window> KLVUtilities::keyWindow() {
  const auto tree = HostInterface::viewTree();
  if (tree == nullptr) return nullptr;
  for (const auto& window : tree->windows()) {
    if (window != nullptr && window->isKey()) return window;
  }
  return nullptr;
}

std::shared_ptr<ViewController> KLVUtilities::topViewController(const std::shared_ptr<ViewController>& controller) {
  if (controller == nullptr) return nullptr;
  switch (controller->kind()) {
    case ViewController::Kind::tabBar: return topViewController(controller->selected());
    case ViewController::Kind::navigation: return topViewController(controller->visible());
    case ViewController::Kind::plain: break;
  }
  if (const auto presented = controller->presented()) return topViewController(presented);
  const auto children = controller->children();
  return children.empty() ? controller : topViewController(children.back());
}

bool KLVUtilities::isViewRectInsideWindowRect(const Rect& viewRect, const Rect& windowRect) {
  return viewRect.x >= windowRect.x && viewRect.y >= windowRect.y &&
         viewRect.x + viewRect.width <= windowRect.x + windowRect.width &&
         viewRect.y + viewRect.height <= windowRect.y + windowRect.height;
}

Font KLVUtilities::fontWithName(const std::optional<std::string>& name, double size) {
  if (isInvalidString(name)) return Font{"", usableSize(size)};
  return fontWith({{kFontNameAttribute, *name}}, usableSize(size));
}

Font KLVUtilities::fontWithName(const std::optional<std::string>& name, double size,
                                const std::optional<std::string>& style) {
  const std::string family = name.value_or("");
  if (style == "bold") return fontWithFace(family, "Bold", "Bold", usableSize(size));
  if (style == "italic") return fontWithFace(family, "Italic", "Italic", usableSize(size));
  if (style == "bold_italic" || style == "bolditalic") {
    return fontWithFace(family, "Bold Italic", "BoldItalic", usableSize(size));
  }
  return fontWithName(family, size);
}

Color KLVUtilities::colorFromHexString(const std::optional<std::string>& text) {
  if (isInvalidString(text) || text->find('#') == std::string::npos || *text == "#") return {};
  // Kept: skips the first character, whether or not it is the "#".
  std::string_view digits = std::string_view(*text).substr(1);
  digits.remove_prefix(std::min(digits.find_first_not_of(" \t\r\n"), digits.size()));
  if (digits.substr(0, 2) == "0x" || digits.substr(0, 2) == "0X") digits.remove_prefix(2);
  constexpr std::uint32_t kLargestPart = 0xFF;
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number, 16);
  if (error == std::errc::result_out_of_range) number = std::numeric_limits<std::uint32_t>::max();
  const auto part = [number](int shift) { return (number >> shift & kLargestPart) / double{kLargestPart}; };
  return {part(16), part(8), part(0), 1};
}

}  // namespace kelvo
