#pragma once

#include <QApplication>

#include "kelvo/QtGui.h"

/// Connects a Qt 6 Widgets application to the library (CMake target Kelvo::qt).
///
///     QApplication app(argc, argv);
///     kelvo::qt::attach(app);
///     kelvo::qt::logAppEventWithName("Purchase", {{"item", "book"}, {"price", 12.5}});
namespace kelvo::qt {

/// The dynamic property with a screen's name, for windows, dialogs and pages.
inline constexpr const char* kScreenProperty = "kelvoScreen";

/// Does what `attach(QGuiApplication&)` does, and reports the screens:
///
/// - A screen is the active window (a dialog counts as one). It may have pages, at any depth: the current one of the
///   largest `QStackedWidget`, `QStackedLayout` or `QTabWidget` is the screen then, or the step of a `QWizard`. Qt's
///   own dialogs have no pages. Tools, menus, docks and the windows in a `QMdiArea` are parts of their window.
/// - A change of the screen while the application is in the background is reported when it returns.
/// - A screen's name is its property `kScreenProperty`. Without one, a window and a page of one of Qt's own classes are
///   named by their object names. All others are named by their classes, without the namespace. A plain QWizardPage has
///   the name of its wizard and its id ("Order-2"). The part up to the last "." is ignored.
/// - A page in a `QQuickWidget` that sets `Kelvo.screen` (CMake target Kelvo::quick) is the screen while it is visible.
/// - Screens with one name count as one screen: give plain QWidget pages and several windows of one class names.
/// - A screen's title is the widget's window title, else the tab's text or the wizard page's title, else the title of
///   its window.
/// - Searches for actions see the live widgets, and the items in a `QQuickWidget`, by class, object name (the native
///   id), `kTagProperty` and position. The rows of item views are cells, in section 0. In a tree, the top-level entry n
///   is row 0 of section n, and its child m is row m + 1 of section n; deeper entries are no cells.
void attach(QApplication& application) noexcept;

}  // namespace kelvo::qt
