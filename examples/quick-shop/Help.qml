import QtQuick
import QtQuick.Controls.Basic
import Kelvo

Window {
    id: help
    objectName: "help"

    Kelvo.screen: "Help"
    title: "Help"
    width: 300
    height: 160

    Column {
        padding: 12
        spacing: 12
        Label { text: "We answer at tea@example.com." }
        Button { objectName: "closeHelp"; text: "Close"; onClicked: help.close() }
    }
}
