import QtQuick
import QtQuick.Controls.Basic

ListView {
    id: shelf

    signal chosen(var product)

    delegate: ItemDelegate {
        objectName: modelData.name
        width: shelf.width
        text: modelData.name + " (" + modelData.price + ")"
        onClicked: shelf.chosen(modelData)
    }
}
