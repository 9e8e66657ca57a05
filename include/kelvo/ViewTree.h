#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelvo/Export.h"
#include "kelvo/Value.h"

/// The host's interface at this moment, so that actions of the service can point at a part of it, and the library can
/// follow screens. A host, or an adapter to its toolkit, implements `ViewTree` and passes it to
/// `Application::setViewTree`. A host that only reports screens needs `ViewController` at most.
///
/// Thread: the library calls every function on the main queue, unless its comment names another thread. It keeps no
/// result from one search to the next. An exception ends the search with one log line.
/// Ownership: objects are shared, and the library may release them on any thread. If the host deletes the widget behind
/// an object, the object must act as an empty, hidden view. Units: lengths are points. The origin is at the top left,
/// and y grows downwards.
namespace kelvo {

/// A rectangle, in points.
struct Rect {
  double x = 0, y = 0, width = 0, height = 0;
};

/// The position of a cell in its table or collection, counted from 0.
struct IndexPath {
  std::int64_t section = 0, row = 0;
};

/// A color with components from 0 to 1. The default is transparent.
struct Color {
  double red = 0, green = 0, blue = 0, alpha = 0;
};

/// The keys of a font's description. Their values are texts.
inline constexpr const char* kFontFamilyAttribute = "NSFontFamilyAttribute";  ///< such as "Inter"
inline constexpr const char* kFontFaceAttribute = "NSFontFaceAttribute";      ///< "Bold", "Italic", "Bold Italic"
inline constexpr const char* kFontNameAttribute = "NSFontNameAttribute";      ///< of one font: "Inter-Bold"

struct Font {
  std::string name;  ///< the toolkit's name, such as "Inter-BoldItalic"; empty for the system's font
  double size = 16;  ///< points
};

/// One view. Two objects may represent the same view if both return and change the same state.
class KELVO_EXPORT View {
 public:
  virtual ~View();
  /// Returns the view's class: "UILabel", "UIButton", "UITableViewCell" ..., or a name of the host's choice.
  [[nodiscard]] virtual std::string className() const = 0;
  /// Returns the base classes of the view's class, nearest first. A button with a class of its own returns "UIButton"
  /// here to be found as a button.
  [[nodiscard]] virtual std::vector<std::string> superclassNames() const { return {}; }
  /// Returns the view's rectangle in its window, in points.
  [[nodiscard]] virtual Rect frame() const = 0;
  [[nodiscard]] virtual bool isHidden() const { return false; }
  /// Returns the opacity, from 0 (transparent) to 1 (opaque). A search by path skips hidden and transparent
  /// views.
  [[nodiscard]] virtual double alpha() const { return 1; }
  /// Returns a number of the host's choice, 0 for none.
  [[nodiscard]] virtual std::int64_t tag() const { return 0; }
  /// Sets the tag. A search by path sets the tags of the cells of tables and collections.
  virtual void setTag(std::int64_t) {}
  /// Returns the id of a cross-platform framework, nullopt if views of this kind have none. A value that is not a text
  /// counts as none.
  [[nodiscard]] virtual std::optional<Value> nativeID() const { return std::nullopt; }
  /// Returns the direct subviews in drawing order. nullptr elements are skipped.
  [[nodiscard]] virtual std::vector<std::shared_ptr<View>> subviews() const { return {}; }
  /// For a table or a collection: returns the position of `cell`, a view at any depth below it; nullopt if it is not
  /// one of its cells.
  [[nodiscard]] virtual std::optional<IndexPath> indexPathForCell(const View& /*cell*/) const { return std::nullopt; }
};

/// One screen, or a container of screens.
class KELVO_EXPORT ViewController {
 public:
  /// A navigation or a tab bar shows one of several screens. A reported navigation counts as no screen.
  enum class Kind { plain, navigation, tabBar };

  virtual ~ViewController();
  /// Returns the class, which names the screen. The part up to the last "." is ignored. Thread: for a reported screen,
  /// the thread that calls `Application::willShow` or `didShow`, during that call.
  [[nodiscard]] virtual std::string className() const = 0;
  /// Returns the kind. Thread: as for `className`.
  [[nodiscard]] virtual Kind kind() const { return Kind::plain; }
  /// Returns the title that the user reads above the screen; with nullopt, the class names the screen.
  [[nodiscard]] virtual std::optional<std::string> title() const { return std::nullopt; }
  /// Returns the children; the last one is on top.
  [[nodiscard]] virtual std::vector<std::shared_ptr<ViewController>> children() const { return {}; }
  /// Returns the controller that covers this one, such as a dialog; nullptr for none.
  [[nodiscard]] virtual std::shared_ptr<ViewController> presented() const { return nullptr; }
  /// For a tab bar: returns the child that shows now.
  [[nodiscard]] virtual std::shared_ptr<ViewController> selected() const { return nullptr; }
  /// For a navigation: returns the child that shows now.
  [[nodiscard]] virtual std::shared_ptr<ViewController> visible() const { return nullptr; }
};

/// A window: the root of its views.
class KELVO_EXPORT Window : public View {
 public:
  ~Window() override;
  /// Returns true if the window receives the keyboard's input.
  [[nodiscard]] virtual bool isKey() const = 0;
  /// Returns the controller of the screen that shows when the library starts, nullptr for none. Called once.
  [[nodiscard]] virtual std::shared_ptr<ViewController> rootViewController() const { return nullptr; }
};

/// The host's windows and fonts.
class KELVO_EXPORT ViewTree {
 public:
  virtual ~ViewTree();
  /// Returns the application's windows, in an order of the host's choice. Searches use the first key window.
  [[nodiscard]] virtual std::vector<std::shared_ptr<Window>> windows() = 0;
  /// Returns the toolkit's font that is nearest to `attributes` (keys above), with `size` in points; nullopt for the
  /// system's font of that size.
  [[nodiscard]] virtual std::optional<Font> font(const Dictionary& attributes, double size) const;
};

}  // namespace kelvo
