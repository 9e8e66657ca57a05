#include <gtest/gtest.h>

#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQmlContext>
#include <QQmlExpression>
#include <QQuickWindow>
#include <QStandardItemModel>
#include <QtTest/QTest>

#include "adapters/quick/ItemToolkit.h"
#include "kelvo/QtGui.h"
#include "platform/HostInterface.h"
#include "util/KLVUtilities+Interface.h"
#include "util/KLVUtilities+Views.h"

namespace kelvo::test {
namespace {

constexpr int kPatience = 20000;  // milliseconds

/// An attached application with one document of QML.
class Items : public testing::Test {
 protected:
  Items() {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    application_ = std::make_unique<QGuiApplication>(count_, arguments_);
    qt::attach(*application_);
    engine_ = std::make_unique<QQmlApplicationEngine>();
  }
  ~Items() override { engine_.reset(); }  // before the application

  /// Shows a window with `content`.
  void open(const QByteArray& content) {
    engine_->loadData(
        "import QtQuick\nimport QtQuick.Controls.Basic\nimport Kelvo\n"
        "ApplicationWindow { id: shop; visible: true; width: 400; height: 400;" +
        content + "}");
    ASSERT_EQ(engine_->rootObjects().size(), 1);
    auto* window = qobject_cast<QWindow*>(engine_->rootObjects().constFirst());
    window->requestActivate();
    ASSERT_TRUE(QTest::qWaitForWindowActive(window));
  }
  void run(const char* script) {
    QObject* root = engine_->rootObjects().constFirst();
    QQmlExpression expression(qmlContext(root), root, script);
    expression.evaluate();
    ASSERT_FALSE(expression.hasError()) << expression.error().toString().toStdString();
  }

  /// Returns name and title of the screen in front, "-" if there is none to report.
  static std::string screen() {
    const auto screen = qt::ItemToolkit::ofApplication().screenInFront();
    if (screen == nullptr) return "-";
    return screen->title() ? screen->className() + "/" + *screen->title() : screen->className();
  }
  /// Returns the class of the view and its object name, "-" if none is found.
  static std::string found(const char* identifier, const char* type = "p") {
    const auto view = KLVUtilities::getViewWithIdentifier(std::string(identifier), type);
    return view == nullptr ? "-" : view->className() + " " + view->nativeID().value_or("").asText().value_or("");
  }

  std::unique_ptr<QQmlApplicationEngine> engine_;

 private:
  int count_ = 1;
  char name_[5] = "test";
  char* arguments_[2] = {name_, nullptr};
  std::unique_ptr<QGuiApplication> application_;
};

TEST_F(Items, TheScreenIsTheMarkedPagePartPopupOrWindowInFront) {
  open(R"(
      title: "Shop"
      Kelvo.screen: "Shop"
      StackView { id: pages; anchors.fill: parent }
      Component { id: first; Page { Kelvo.screen: "First"; title: "The first" } }
      Component {
        id: second
        Page {
          property alias part: part
          Kelvo.screen: "Second"
          Loader { id: part; Kelvo.screen: "Part"; active: false; sourceComponent: Item {} }
        }
      }
      Component { id: swipes; SwipeView { Page { Kelvo.screen: "Left" } Page { Kelvo.screen: "Right" } } }
      Dialog { id: question; Kelvo.screen: "Question"; title: "Sure?" }
      Window { id: other; Kelvo.screen: "Other" }
      Window { id: plain })");
  struct Step {
    const char* script;
    const char* expected;
    bool moves = false;
  };
  const Step steps[] = {{"", "Shop/Shop"},
                        {"pages.push(first)", "First/The first"},
                        {"pages.push(second)", "Second", true},
                        {"pages.currentItem.part.active = true", "Part"},
                        {"pages.currentItem.part.active = false", "Second"},
                        {"question.open()", "Question/Sure?"},
                        {"question.close()", "Second"},
                        {"pages.push(swipes)", "Left", true},
                        {"pages.currentItem.currentIndex = 1", "Right"},
                        {"other.show(); other.requestActivate()", "Other"},
                        {"plain.show(); plain.requestActivate()", "Right"},  // of the window that owns it
                        {"pages.pop()", "Second", true},
                        {"pages.currentItem.visible = false", "Shop/Shop"},
                        {"Kelvo.screen = ''", "-"}};
  for (const Step& step : steps) {
    run(step.script);
    EXPECT_EQ(screen() == "-", step.moves || step.expected == std::string("-")) << step.script;
    EXPECT_TRUE(QTest::qWaitFor([&] { return screen() == step.expected; }, kPatience))
        << step.script << ": " << screen();
  }
}

TEST_F(Items, ASwipeThatReturnsIsNoChange) {
  open(R"(
      SwipeView { id: swipes; anchors.fill: parent
        Page { Kelvo.screen: "Left" }
        Page { Kelvo.screen: "Right" } })");
  auto* window = qobject_cast<QQuickWindow*>(engine_->rootObjects().constFirst());
  EXPECT_EQ(screen(), "Left");
  QTest::mousePress(window, Qt::LeftButton, {}, {390, 200});
  for (int x = 380; x > 20; x -= 20) QTest::mouseMove(window, {x, 200}, 10);
  EXPECT_EQ(screen(), "-") << "both pages are visible, and the second one is current";
  for (int x = 20; x < 380; x += 20) QTest::mouseMove(window, {x, 200}, 10);
  QTest::mouseRelease(window, Qt::LeftButton, {}, {390, 200});
  EXPECT_TRUE(QTest::qWaitFor([] { return screen() == "Left"; }, kPatience)) << screen();
}

TEST_F(Items, AreFoundByTagIdAndPath) {
  QStandardItemModel prices(3, 2);
  engine_->rootContext()->setContextProperty("prices", &prices);
  open(R"(
      component Buy: Button {}
      Column {
        Label { id: heading; objectName: "heading"; text: "Heading" }
        Item { id: box; width: 100; height: 50
          Buy { property int kelvoTag: 17; objectName: "buy" } }  // the box does not count: the button is Column's
        ListView { width: 100; height: 100; model: 3; header: Label { text: "Rows" }
          highlight: Rectangle {}
          delegate: ItemDelegate { objectName: "row" + index; height: 20 } }
        GridView { width: 100; height: 100; model: 5; cellWidth: 50; cellHeight: 20
          delegate: Text { objectName: "field" + index; text: "field" } }
        Switch { property int kelvoTag: 18 }
        TableView { width: 100; height: 60; rowSpacing: 10; model: prices
          delegate: Item { implicitWidth: 40; implicitHeight: 20; objectName: "price" + row + column } } })");
  EXPECT_TRUE(QTest::qWaitFor([] { return found("ItemDelegate:2") == "ItemDelegate row2"; }, kPatience));
  EXPECT_EQ(found("17", "t"), "Buy buy");
  EXPECT_EQ(found("Label:0"), "Label heading");
  EXPECT_EQ(found("Buy:1"), "Buy buy") << "in reading order, without the box";
  EXPECT_EQ(found("ListView:2:ItemDelegate:1"), "ItemDelegate row1");
  EXPECT_EQ(found("GridView:3:Text:4"), "Text field4");
  EXPECT_EQ(found("4", "t"), "Text field4") << "the lookup by path set the cell's tag";
  EXPECT_EQ(found("TableView:5:Item:3"), "Item price11") << "in reading order";
  EXPECT_EQ(found("ItemDelegate:3"), "-");
  EXPECT_EQ(found("Rectangle:0"), "-") << "the highlight is at the place of the first row, but is no row";
  run("heading.visible = false; box.opacity = 0");
  EXPECT_EQ(found("ListView:0:ItemDelegate:1"), "ItemDelegate row1") << "hidden and transparent items do not count";
  const auto names = KLVUtilities::getViewWithIdentifier(std::string("18"), "t")->superclassNames();
  EXPECT_EQ(std::count(names.begin(), names.end(), "UISwitch"), 1) << "the nearest type counts";
  EXPECT_EQ(std::count(names.begin(), names.end(), "UIButton"), 0);
  KLVUtilities::setIsReactNative(true);
  EXPECT_EQ(found("[klv_row2_klv]", "i"), "ItemDelegate row2");
}

TEST_F(Items, ThatAreDeletedDuringALookupBecomeHiddenViews) {
  open(R"(Kelvo.screen: "Rows"; ListView { anchors.fill: parent; model: 3; delegate: Button {} })");
  const auto windows = HostInterface::viewTree()->windows();
  const auto shown = qt::ItemToolkit::ofApplication().screenInFront();
  std::vector<std::shared_ptr<View>> all(windows.begin(), windows.end());
  for (std::size_t i = 0; i < all.size(); ++i) {  // grows meanwhile
    for (const auto& view : all[i]->subviews()) all.push_back(view);
  }
  ASSERT_GT(all.size(), 6U);
  engine_.reset();
  EXPECT_EQ(shown->title(), std::nullopt);
  for (const auto& view : all) {
    EXPECT_TRUE(view->isHidden() && view->subviews().empty() && view->className().empty());
    EXPECT_EQ(view->frame().width, 0);
    EXPECT_FALSE(all.front()->indexPathForCell(*view).has_value());
  }
}

}  // namespace
}  // namespace kelvo::test
