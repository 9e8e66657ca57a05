#pragma once

#include <QMetaObject>
#include <string>
#include <vector>

namespace kelvo::qt {

/// Returns the name of the QML type with this class: "BuyButton" for BuyButton.qml, "Rectangle" for a Rectangle.
[[nodiscard]] std::string typeNameOf(const QMetaObject& type);

/// Returns the names of the type's base types, nearest first: "Button", "AbstractButton" ... The name under which the
/// service's actions know the item follows the first type that has one. A type of Qt's own gets that name, too.
[[nodiscard]] std::vector<std::string> superclassNamesOf(const QMetaObject& type);

}  // namespace kelvo::qt
