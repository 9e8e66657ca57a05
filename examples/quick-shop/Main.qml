import QtQuick
import QtQuick.Controls.Basic

ApplicationWindow {
    id: shop
    objectName: "shop"

    property var basket: []

    width: 360
    height: 480
    visible: true
    title: "Tea shop"

    StackView {
        id: pages
        objectName: "pages"
        anchors.fill: parent
        initialItem: Shelves {
            onChosen: product => pages.push(productPage, {product: product})
            onBasketWanted: pages.push(basketPage)
            onHelpWanted: help.show()
        }
    }

    Component {
        id: productPage
        Product {
            onBought: {
                shop.basket = [...shop.basket, product.name]
                pages.replace(basketPage)
            }
            onClosed: pages.pop()
        }
    }

    Component {
        id: basketPage
        Basket {
            items: shop.basket
            onCheckedOut: {
                shop.basket = []
                pages.pop()
            }
            onClosed: pages.pop()
        }
    }

    Help { id: help }
}
