#include <gtest/gtest.h>
#include <kelvo/PluginServices.h>
#include <kelvo/Qt.h>
#include <kelvo/Testing.h>

#include <QDialog>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickWidget>
#include <QStackedWidget>
#include <QVBoxLayout>
#include <QtTest/QTest>

using Texts = std::vector<std::string>;

constexpr const char* kPage = R"(
import QtQuick
import Kelvo
Item {
  Kelvo.screen: "Offers"
  Text { x: 20; y: 30; width: 50; height: 20; text: "Offer"; property int kelvoTag: 17 }
  Component.onCompleted: Kelvo.logAggregate("Opened", {from: "menu"})
})";

/// A window of widgets whose second page has a heading and a page in QML.
class Mixed : public testing::Test {
 protected:
  Mixed() {
    qmlPage_.setResizeMode(QQuickWidget::SizeRootObjectToView);
    auto* component = new QQmlComponent(qmlPage_.engine(), &qmlPage_);
    component->setData(kPage, QUrl());
    qmlPage_.setContent(QUrl(), component, component->create());
    auto* second = new QWidget;
    auto* layout = new QVBoxLayout(second);
    layout->addSpacing(40);
    layout->addWidget(&qmlPage_);
    pages.addWidget(new QWidget);
    pages.widget(0)->setObjectName("Welcome");
    pages.addWidget(second);
    second->setObjectName("Second");
    pages.resize(300, 300);
    pages.show();
  }

  kelvo::testing::Recorder kelvo;
  QStackedWidget pages;
  QQuickWidget qmlPage_;
};

TEST_F(Mixed, AScreenInsideAQQuickWidgetCountsWhileItIsVisible) {
  EXPECT_EQ(kelvo.screens(), Texts{"Welcome"});
  pages.setCurrentIndex(1);
  EXPECT_EQ(kelvo.screens(), (Texts{"Welcome", "Offers"}));
  QDialog dialog(&pages);
  dialog.setObjectName("Help");
  dialog.open();
  EXPECT_EQ(kelvo.screens(), (Texts{"Welcome", "Offers", "Help"}));
  dialog.close();
  pages.setCurrentIndex(0);
  EXPECT_EQ(kelvo.screens().back(), "Welcome");
  EXPECT_TRUE(kelvo.logged("Opened", {{"from", "menu"}}));
  EXPECT_EQ(kelvo.calls().at(0).kind, "aggregate event");
}

TEST_F(Mixed, SearchesFindTheItemsInsideAQQuickWidget) {
  pages.setCurrentIndex(1);
  ASSERT_TRUE(QTest::qWaitForWindowActive(&pages));
  kelvo.settle();
  const auto offer = kelvo::PluginServices::getViewWithIdentifier("17", "t");
  ASSERT_NE(offer, nullptr);
  EXPECT_EQ(kelvo::PluginServices::getViewWithIdentifier("Text:0", "p")->className(), offer->className());
  const QPoint corner = qmlPage_.mapTo(&pages, QPoint(20, 30));
  EXPECT_EQ(offer->frame().x, corner.x());
  EXPECT_EQ(offer->frame().y, corner.y());
  pages.setCurrentIndex(0);
  EXPECT_EQ(kelvo::PluginServices::getViewWithIdentifier("Text:0", "p"), nullptr);
}

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  QApplication app(argc, argv);
  kelvo::qt::attach(app);
  return RUN_ALL_TESTS();
}
