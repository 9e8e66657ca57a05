import QtQuick
import QtQuick.Controls.Basic
import Kelvo

Page {
    id: page

    property var product
    signal bought
    signal closed

    Kelvo.screen: "Product"
    title: product.name
    padding: 12

    Column {
        spacing: 12
        Label { text: page.product.name; font.pixelSize: 24 }
        Label { text: "It costs " + page.product.price + "." }
        Button {
            objectName: "buy"
            text: "Put into basket"
            onClicked: {
                Kelvo.log("Add to basket", {item: page.product.name, price: page.product.price})
                page.bought()
            }
        }
        Button {
            objectName: "brewing"
            text: "How to brew"
            onClicked: guide.active = !guide.active
        }
        Button { text: "Back"; onClicked: page.closed() }
        Loader {
            id: guide
            Kelvo.screen: "Brewing"
            active: false
            sourceComponent: Label { text: "Boil water. Wait a minute.\nPour it on the tea. Wait three." }
        }
    }
}
