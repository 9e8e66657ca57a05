#pragma once

#include <QWidget>
#include <string>
#include <vector>

namespace kelvo::qt {

/// Returns the widget's C++ class without its namespace, for paths and screen names. The class needs no Q_OBJECT.
[[nodiscard]] std::string classNameOf(const QWidget& widget);

/// Returns the base classes of the widget's class, nearest first. The name under which the service's actions know the
/// widget follows the class of Qt's that has one: QPushButton, QAbstractButton, UIButton, QWidget ... A widget of one
/// of Qt's own classes gets that name, too.
[[nodiscard]] std::vector<std::string> superclassNamesOf(const QWidget& widget);

/// Returns the nearest of Qt's own classes from which the class of `widget` inherits, or which it is.
[[nodiscard]] std::string nearestClassOfQt(const QWidget& widget);

/// Returns whether the class of `widget` belongs to Qt, and so does not identify a screen.
[[nodiscard]] bool isOfQtsOwnClass(const QWidget& widget);

}  // namespace kelvo::qt
