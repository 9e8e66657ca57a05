import QtQuick
import Kelvo

Window {
    Kelvo.screen: "Hello"
    visible: true
    Component.onCompleted: {
        Kelvo.setUserIdentifier("ann")
        Kelvo.setUserCustomInfo({plan: "gold"})
        Kelvo.setSessionCustomInfo({table: 7})
        Kelvo.log("Consumed", {linked: true, item: "book", price: 12.5, nothing: null, tags: ["new", 2], of: {page: 7}})
        Kelvo.log("Greeted")
        Kelvo.logAggregate("Scroll", {page: "home"})
        end.start()
    }
    Timer { id: end; interval: 0; onTriggered: Qt.quit() }
}
