#pragma once

#include <QGuiApplication>
#include <QString>
#include <QVariantMap>

#include "kelvo/KelvoSDK.h"

/// Connects a Qt 6 application to the library (CMake target Kelvo::qtgui). It needs no Qt Widgets: an application with
/// widgets includes `kelvo/Qt.h` instead, which also follows their screens.
///
///     QGuiApplication app(argc, argv);
///     kelvo::qt::attach(app);
///     kelvo::qt::logAppEventWithName("Purchase", {{"item", "book"}, {"price", 12.5}});
namespace kelvo::qt {

/// The dynamic property with a view's tag, an integer by which searches find the view.
inline constexpr const char* kTagProperty = "kelvoTag";

/// Connects `application` to the library. Must be called on its main thread. May be called before or after the library
/// starts and windows are shown. The effects, until the application object is destroyed:
///
/// - Its event loop is the library's main queue.
/// - The application is in the foreground while `QGuiApplication::applicationState()` is active. The adapter ignores
///   moments of less than a quarter of a second without focus.
/// - Where no window has ever had the focus, as without a window manager, the application is in the foreground while
///   one of its windows is visible.
/// - The foreground ends when the application object is destroyed or the process exits, also by `std::exit` in a slot.
///
/// A second call for the same application, or a call on another thread, only logs a warning through qWarning.
void attach(QGuiApplication& application) noexcept;

/// Lets SIGTERM and SIGINT quit the application in order, as `QCoreApplication::quit` does: its windows close, `exec`
/// returns, and the last stretch on the screen counts. Without this call, these signals end the process at once. A
/// second signal of the same kind always does. A signal that the host handles or ignores stays as it is. Must be called
/// on the main thread while the application object exists, and lasts as long.
void quitOnSignals() noexcept;

/// Converts `map` to attributes. Numbers, texts, bytes, dates, lists and maps keep their types. Any other type becomes
/// the text that Qt converts it to, or null if there is none. May throw what the conversion of a host's type throws.
[[nodiscard]] Dictionary attributes(const QVariantMap& map);

/// Convert `info` and call the function of `KelvoSDK` with the same name. If a conversion throws, the call is dropped
/// with a qWarning.
void logAppEventWithName(const QString& name, const QVariantMap& info = {}) noexcept;
void logClientEventWithName(const QString& name, const QVariantMap& info = {}) noexcept;
void logAggregateEvent(const QString& name, const QVariantMap& info = {}) noexcept;
void setUserCustomInfo(const QVariantMap& info) noexcept;
void setSessionCustomInfo(const QVariantMap& info) noexcept;

}  // namespace kelvo::qt
