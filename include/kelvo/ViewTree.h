#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelvo/Export.h"
#include "kelvo/Value.h"

/// What the host's interface looks like at this moment, so that actions of the service can point at a part of it and
/// screens can be followed. A host, or an adapter to its toolkit, implements `ViewTree` and hands it to
/// `Application::setViewTree`; a host that only reports screens needs `ViewController` at most.
///
/// Every operation is called on the main queue, unless it says otherwise, and returns what is there now: nothing is
/// kept from one search to the next. Objects are shared, and may be let go on any thread. The host may delete what one
/// stands for at any moment; the object then answers as an empty, hidden view. What an operation throws ends the
/// search, with one log line.
/// Lengths are points, the origin is at the top left, y grows downwards.
namespace kelvo {

struct Rect {
  double x = 0, y = 0, width = 0, height = 0;
};

/// The place of a cell in its table or collection, each from 0.
struct IndexPath {
  std::int64_t section = 0, row = 0;
};

/// Parts of 0 to 1. The default is clear.
struct Color {
  double red = 0, green = 0, blue = 0, alpha = 0;
};

/// The keys of a font's description; their values are texts.
inline constexpr const char* kFontFamilyAttribute = "NSFontFamilyAttribute";  ///< such as "Inter"
inline constexpr const char* kFontFaceAttribute = "NSFontFaceAttribute";      ///< "Bold", "Italic", "Bold Italic"
inline constexpr const char* kFontNameAttribute = "NSFontNameAttribute";      ///< of one font: "Inter-Bold"

struct Font {
  std::string name;  ///< as the toolkit names it, such as "Inter-BoldItalic"; empty for the system's font
  double size = 16;  ///< points
};

/// One view. Two objects may stand for one view, as long as both tell and change the same.
class KELVO_EXPORT View {
 public:
  virtual ~View();
  /// Its class: "UILabel", "UIButton", "UITableViewCell" ..., or a name of the host's own.
  [[nodiscard]] virtual std::string className() const = 0;
  /// The classes that its class derives from, nearest first. A button of the host's own class names "UIButton" here
  /// to be found as one.
  [[nodiscard]] virtual std::vector<std::string> superclassNames() const { return {}; }
  /// Where it lies in its window.
  [[nodiscard]] virtual Rect frame() const = 0;
  [[nodiscard]] virtual bool isHidden() const { return false; }
  /// From 0, fully transparent, to 1.
  [[nodiscard]] virtual double alpha() const { return 1; }
  /// A number of the host's choice; 0 for none. A search by path gives the cells of tables and collections theirs.
  [[nodiscard]] virtual std::int64_t tag() const { return 0; }
  virtual void setTag(std::int64_t) {}
  /// The cross-platform id; nullopt when views of this kind have none. A value that is no text counts as none, too.
  [[nodiscard]] virtual std::optional<Value> nativeID() const { return std::nullopt; }
  /// In the order in which they are drawn.
  [[nodiscard]] virtual std::vector<std::shared_ptr<View>> subviews() const { return {}; }
  /// Of a table or a collection: the place of `cell`, a view somewhere below it; nullopt when it is none of its cells.
  [[nodiscard]] virtual std::optional<IndexPath> indexPathForCell(const View& /*cell*/) const { return std::nullopt; }
};

/// What stands for one screen.
class KELVO_EXPORT ViewController {
 public:
  /// A navigation or a tab bar shows one of several screens. A navigation that is reported counts as none itself.
  enum class Kind { plain, navigation, tabBar };

  virtual ~ViewController();
  /// Its class, which names the screen; what stands before the last "." of it is left out. Asked at once, on the
  /// thread that calls `Application::willShow` or `didShow`.
  [[nodiscard]] virtual std::string className() const = 0;
  /// Asked like `className`.
  [[nodiscard]] virtual Kind kind() const { return Kind::plain; }
  /// What the user reads above the screen; nullopt when the class shall name it.
  [[nodiscard]] virtual std::optional<std::string> title() const { return std::nullopt; }
  /// The last one lies on top.
  [[nodiscard]] virtual std::vector<std::shared_ptr<ViewController>> children() const { return {}; }
  /// The one that covers it, such as a dialog; nullptr for none.
  [[nodiscard]] virtual std::shared_ptr<ViewController> presented() const { return nullptr; }
  /// Of a tab bar: the one shown now.
  [[nodiscard]] virtual std::shared_ptr<ViewController> selected() const { return nullptr; }
  /// Of a navigation: the one shown now.
  [[nodiscard]] virtual std::shared_ptr<ViewController> visible() const { return nullptr; }
};

/// A window: the root of its views.
class KELVO_EXPORT Window : public View {
 public:
  ~Window() override;
  /// The one that takes the keyboard's input.
  [[nodiscard]] virtual bool isKey() const = 0;
  /// Asked once, for the screen that shows when the library starts; nullptr for none.
  [[nodiscard]] virtual std::shared_ptr<ViewController> rootViewController() const { return nullptr; }
};

class KELVO_EXPORT ViewTree {
 public:
  virtual ~ViewTree();
  /// The application's windows, in an order of the host's choice. Searches look at the first one that is key.
  [[nodiscard]] virtual std::vector<std::shared_ptr<Window>> windows() = 0;
  /// The font that `attributes` (keys above) describe, as near as the toolkit has it; nullopt stands for the system's
  /// font of that `size`, in points.
  [[nodiscard]] virtual std::optional<Font> font(const Dictionary& attributes, double size) const;
};

}  // namespace kelvo
