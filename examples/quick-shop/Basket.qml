import QtQuick
import QtQuick.Controls.Basic
import Kelvo

Page {
    id: page

    property var items: []
    signal checkedOut
    signal closed

    Kelvo.screen: "Basket"
    title: "Basket"
    padding: 12

    ListView {
        anchors.fill: parent
        model: page.items
        delegate: Label { text: modelData }
    }

    footer: Row {
        padding: 12
        spacing: 12
        Button {
            objectName: "checkOut"
            text: "Check out"
            onClicked: {
                Kelvo.log("Check out", {items: page.items})
                page.checkedOut()
            }
        }
        Button { text: "Back"; onClicked: page.closed() }
    }
}
