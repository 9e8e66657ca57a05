import QtQuick
import QtQuick.Controls.Basic
import Kelvo

// Two shelves, which the customer swipes.
Page {
    id: page

    signal chosen(var product)
    signal basketWanted
    signal helpWanted

    header: TabBar {
        id: tabs
        currentIndex: shelves.currentIndex
        TabButton { objectName: "toProducts"; text: "Products" }
        TabButton { objectName: "toOffers"; text: "Offers" }
    }

    SwipeView {
        id: shelves
        objectName: "shelves"
        anchors.fill: parent
        currentIndex: tabs.currentIndex

        Shelf {
            Kelvo.screen: "Products"
            objectName: "products"
            model: [{name: "Tea pot", price: 32.5}, {name: "Tea cup", price: 9.9}, {name: "Kettle", price: 48}]
            onChosen: product => page.chosen(product)
        }
        Shelf {
            Kelvo.screen: "Offers"
            model: [{name: "Green tea, 100 g", price: 5.25}]
            onChosen: product => page.chosen(product)
        }
    }

    footer: Row {
        padding: 12
        spacing: 12
        Button { objectName: "toBasket"; text: "Basket"; onClicked: page.basketWanted() }
        Button { objectName: "toHelp"; text: "Help"; onClicked: page.helpWanted() }
    }
}
