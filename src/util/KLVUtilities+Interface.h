#pragma once

#include <memory>
#include <optional>
#include <string>

namespace kelvo {

class ViewController;
class Window;
struct Color;
struct Font;
struct Rect;

/// Looks up windows, view controllers, fonts and colours of the host's interface. Thread: the main queue only.
namespace KLVUtilities {

/// Returns the first window that is key, nullptr if there is none.
std::shared_ptr<Window> keyWindow();
/// Returns the controller that the user sees. Follows the selected tab of a tab bar, the visible controller of a
/// navigation, a presented controller, and the last child, in this order. Returns nullptr if one of these is missing.
std::shared_ptr<ViewController> topViewController(const std::shared_ptr<ViewController>& controller);
/// Returns true if `viewRect` is wholly inside `windowRect`; edges may touch.
bool isViewRectInsideWindowRect(const Rect& viewRect, const Rect& windowRect);
/// Returns the named font, or the system font if the name gives none. `size` is in points; a size below 1 counts as 16.
Font fontWithName(const std::optional<std::string>& name, double size);
/// As above, in a style: "bold", "italic", "bold_italic" or "bolditalic"; any other style is plain. Returns the system
/// font in that style if the named family has none.
Font fontWithName(const std::optional<std::string>& name, double size, const std::optional<std::string>& style);
/// Returns the opaque colour that a text such as "#FF8000" describes. Returns the clear colour for nullopt, for a text
/// without "#", and for "#" alone.
Color colorFromHexString(const std::optional<std::string>& text);

}  // namespace KLVUtilities
}  // namespace kelvo
