#pragma once

#include <QApplication>
#include <QString>
#include <QVariantMap>

#include "kelvo/KelvoSDK.h"

/// The bridge between a Qt 6 Widgets application and the library (CMake target Kelvo::qt).
///
///     QApplication app(argc, argv);
///     kelvo::qt::attach(app);
///     kelvo::qt::logAppEventWithName("Purchase", {{"item", "book"}, {"price", 12.5}});
namespace kelvo::qt {

/// A widget's number for searches by tag: a dynamic property of this name that holds an integer.
inline constexpr const char* kTagProperty = "kelvoTag";

/// Hands the application over, on its main thread, before or after the library is started and windows are shown:
///
/// - its event loop becomes the library's main queue, until the application object dies;
/// - it is in the foreground while `QGuiApplication::applicationState()` is active, moments without focus of less than
///   a quarter of a second left out, and leaves it at the latest when the application object dies;
/// - screens are the active window, a dialog being one, or the current page of its largest `QStackedWidget` or
///   `QTabWidget` (and so on within that page). Tools, menus, docks and the windows within a `QMdiArea` are parts of
///   their window. A screen's name is the widget's class without its namespace; a widget of one of Qt's own classes is
///   named by its object name: give pages that are plain QWidgets one, since a screen of the same name as the one
///   before is the same screen. Its title is the widget's window title, else the tab's text, else that of its window;
/// - searches of the service's actions see the live widgets, by class, object name (the native id), `kTagProperty` and
///   place. The rows of item views are cells: in a tree, an entry's place is (row of its top-level entry, 0), and that
///   of a child (that row, its own row + 1); deeper ones are no cells.
///
/// A second call for one application, and one from another thread, does nothing but give a line through qWarning.
void attach(QApplication& application) noexcept;

/// What the library can carry of `map`: numbers, texts, bytes, dates, lists and maps as they are; any other type as the
/// text that Qt converts it to; null when there is none.
[[nodiscard]] Dictionary attributes(const QVariantMap& map);

/// As `KelvoSDK`'s operations of these names.
void logAppEventWithName(const QString& name, const QVariantMap& info = {}) noexcept;
void logClientEventWithName(const QString& name, const QVariantMap& info = {}) noexcept;
void setUserCustomInfo(const QVariantMap& info) noexcept;
void setSessionCustomInfo(const QVariantMap& info) noexcept;

}  // namespace kelvo::qt
