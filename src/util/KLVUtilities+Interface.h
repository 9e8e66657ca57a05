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

/// Windows, view controllers, fonts and colours of the host's interface. Called on the main queue only.
namespace KLVUtilities {

std::shared_ptr<Window> keyWindow();
/// The controller that the user sees: through tab bars, navigations, what is presented, and the last child.
std::shared_ptr<ViewController> topViewController(const std::shared_ptr<ViewController>& controller);
/// Touching edges count as inside.
bool isViewRectInsideWindowRect(const Rect& viewRect, const Rect& windowRect);
/// `size` in points, 16 for one below 1.
Font fontWithName(const std::optional<std::string>& name, double size);
/// `style`: "bold", "italic", "bold_italic" or "bolditalic"; any other is plain.
Font fontWithName(const std::optional<std::string>& name, double size, const std::optional<std::string>& style);
/// "#RRGGBB"; the clear colour for what has no "#" or nothing else.
Color colorFromHexString(const std::optional<std::string>& text);

}  // namespace KLVUtilities
}  // namespace kelvo
