#pragma once

#include <QWidget>
#include <string>
#include <vector>

namespace kelvo::qt {

/// The class without its namespace, as a step of a path or a screen's name can hold it. It need not have a Q_OBJECT.
[[nodiscard]] std::string classNameOf(const QWidget& widget);

/// The classes above `widget`'s own, nearest first. Where one of Qt's has a counterpart among the classes that searches
/// look at, the counterpart follows it: QPushButton, QAbstractButton, UIButton, QWidget ...; a widget whose own class
/// is Qt's has its counterpart here as well.
[[nodiscard]] std::vector<std::string> superclassNamesOf(const QWidget& widget);

/// Whether the class of `widget` belongs to Qt and so tells nothing about a screen.
[[nodiscard]] bool isOfQtsOwnClass(const QWidget& widget);

}  // namespace kelvo::qt
