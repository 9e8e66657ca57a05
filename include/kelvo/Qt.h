#pragma once

#include <QApplication>
#include <QString>
#include <QVariantMap>

#include "kelvo/KelvoSDK.h"

/// Connects a Qt 6 Widgets application to the library (CMake target Kelvo::qt).
///
///     QApplication app(argc, argv);
///     kelvo::qt::attach(app);
///     kelvo::qt::logAppEventWithName("Purchase", {{"item", "book"}, {"price", 12.5}});
namespace kelvo::qt {

/// The dynamic property with a widget's tag, an integer by which searches find the widget.
inline constexpr const char* kTagProperty = "kelvoTag";

/// Connects `application` to the library. Must be called on its main thread. May be called before or after the library
/// starts and windows are shown. The effects, until the application object is destroyed:
///
/// - Its event loop is the library's main queue.
/// - The application is in the foreground while `QGuiApplication::applicationState()` is active. The adapter ignores
///   moments of less than a quarter of a second without focus. Destroying the application object ends the foreground.
/// - A screen is the active window (a dialog counts as one), or the current page of the window's largest
///   `QStackedWidget` or `QTabWidget`, at any depth. Tools, menus, docks and the windows in a `QMdiArea` are parts of
///   their window.
/// - A screen's name is the widget's class without the namespace. For a widget of one of Qt's own classes, it is the
///   object name: give plain QWidget pages object names, because a screen of the same name counts as the same screen.
/// - A screen's title is the widget's window title, else the tab's text, else the title of its window.
/// - Searches for actions see the live widgets, by class, object name (the native id), `kTagProperty` and position. The
///   rows of item views are cells, in section 0. In a tree, the top-level entry n is row 0 of section n, and its child
///   m is row m + 1 of section n; deeper entries are no cells.
///
/// A second call for the same application, or a call on another thread, only logs a warning through qWarning.
void attach(QApplication& application) noexcept;

/// Converts `map` to attributes. Numbers, texts, bytes, dates, lists and maps keep their types. Any other type becomes
/// the text that Qt converts it to, or null if there is none. May throw what the conversion of a host's type throws.
[[nodiscard]] Dictionary attributes(const QVariantMap& map);

/// Convert `info` and call the function of `KelvoSDK` with the same name. If a conversion throws, the call is dropped
/// with a qWarning.
void logAppEventWithName(const QString& name, const QVariantMap& info = {}) noexcept;
void logClientEventWithName(const QString& name, const QVariantMap& info = {}) noexcept;
void setUserCustomInfo(const QVariantMap& info) noexcept;
void setSessionCustomInfo(const QVariantMap& info) noexcept;

}  // namespace kelvo::qt
