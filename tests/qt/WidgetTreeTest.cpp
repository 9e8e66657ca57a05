#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QDialog>
#include <QFileDialog>
#include <QLabel>
#include <QListWidget>
#include <QMainWindow>
#include <QMenu>
#include <QPushButton>
#include <QScrollBar>
#include <QStackedLayout>
#include <QStackedWidget>
#include <QStringListModel>
#include <QTabWidget>
#include <QTableWidget>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <QWizard>
#include <QtTest/QTest>
#include <atomic>
#include <thread>

#include "adapters/qt/ItemCells.h"
#include "adapters/qt/ScreenFollower.h"
#include "adapters/qt/WidgetClasses.h"
#include "adapters/qtgui/Foreground.h"
#include "core/KLVController.h"
#include "kelvo/KelvoSDK.h"
#include "kelvo/Plugin.h"
#include "kelvo/Qt.h"
#include "platform/HostInterface.h"
#include "platform/MainQueue.h"
#include "platform/NotificationCenter.h"
#include "support/MainLoop.h"
#include "util/KLVUtilities+Interface.h"
#include "util/KLVUtilities+Views.h"

namespace kelvo::test {
namespace {

class BuyButton : public QPushButton {
 public:
  using QPushButton::QPushButton;
};

/// An attached application with one window that holds a label, a button in a box, and a list.
class Widgets : public testing::Test {
 protected:
  Widgets() {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    application_ = std::make_unique<QApplication>(count_, arguments_);
    qt::attach(*application_);
    window_ = std::make_unique<QMainWindow>();
    auto* page = new QWidget;
    auto* layout = new QVBoxLayout(page);
    heading = new QLabel("Heading");
    layout->addWidget(heading);
    auto* box = new QWidget;  // a lookup skips the box: the button counts as a child of the page
    auto* inBox = new QVBoxLayout(box);
    buy = new BuyButton("Buy");
    buy->setObjectName("buy");
    buy->setProperty(qt::kTagProperty, 17);
    inBox->addWidget(buy);
    layout->addWidget(box);
    rows = new QListWidget;
    rows->addItems({"one", "two", "three"});
    layout->addWidget(rows);
    window_->setCentralWidget(page);
    window_->resize(400, 400);
    window_->show();
    EXPECT_TRUE(QTest::qWaitForWindowActive(window_.get()));
  }
  ~Widgets() override { window_.reset(); }

  static std::shared_ptr<View> find(const char* identifier, const char* type) {
    return KLVUtilities::getViewWithIdentifier(std::string(identifier), type);
  }
  /// Returns the name and the title of the screen in front.
  static std::string shown(qt::ScreenFollower& screens) {
    const auto screen = screens.screenInFront();
    return screen == nullptr ? "none" : screen->className() + "/" + screen->title().value_or("-");
  }
  static void activate(QWidget& window) {
    window.show();
    window.activateWindow();
    EXPECT_TRUE(QTest::qWaitFor([&] { return QApplication::activeWindow() == &window; }));
  }
  /// Returns the class of the view, "-" if none is found.
  static std::string found(const char* identifier, const char* type = "p") {
    const auto view = find(identifier, type);
    return view == nullptr ? "-" : view->className();
  }

  QLabel* heading = nullptr;
  BuyButton* buy = nullptr;
  QListWidget* rows = nullptr;
  std::unique_ptr<QMainWindow> window_;

 private:
  int count_ = 1;
  char name_[5] = "test";
  char* arguments_[2] = {name_, nullptr};
  std::unique_ptr<QApplication> application_;
};

TEST_F(Widgets, AreFoundByTagIdAndPath) {
  EXPECT_EQ(found("17", "t"), "BuyButton");
  EXPECT_EQ(found("BuyButton:1"), "BuyButton") << "in reading order, without the box";
  EXPECT_EQ(found("QListWidget:2:UITableViewCell:2"), "UITableViewCell");
  EXPECT_EQ(found("2", "t"), "UITableViewCell") << "the lookup by path set the row's tag";
  EXPECT_EQ(found("UITableViewCell:3"), "-");
  EXPECT_EQ(PluginServices::getViewWithIdentifier("17", "t")->className(), "BuyButton");
  std::thread([] { EXPECT_EQ(PluginServices::getViewWithIdentifier("17", "t"), nullptr); }).join();
  heading->setVisible(false);
  EXPECT_EQ(found("BuyButton:0"), "BuyButton") << "the hidden label no longer counts";
  buy->parentWidget()->setVisible(false);
  EXPECT_EQ(found("BuyButton:0"), "-");

  KLVUtilities::setIsReactNative(true);
  EXPECT_EQ(found("[klv_buy_klv]", "i"), "BuyButton");
}

TEST_F(Widgets, HaveAFrameAndTheCounterpartOfTheirNearestClass) {
  const auto frame = find("17", "t")->frame();
  const QPoint corner = buy->mapTo(window_.get(), QPoint());
  EXPECT_EQ(frame.x, corner.x());
  EXPECT_EQ(frame.y, corner.y());
  EXPECT_EQ(frame.width, buy->width());

  const auto counterpart = [](const QWidget& widget) {
    std::string all;
    for (const auto& name : qt::superclassNamesOf(widget)) all += name.starts_with("UI") ? name : "";
    return all;
  };
  EXPECT_EQ(counterpart(QPushButton()), "UIButton");
  EXPECT_EQ(counterpart(QCheckBox()), "UISwitch") << "the nearest class counts";
  EXPECT_EQ(counterpart(QWidget()), "");
  QListView icons;
  icons.setViewMode(QListView::IconMode);
  EXPECT_EQ(counterpart(icons), "UICollectionView");
}

TEST_F(Widgets, ThatAreDeletedDuringALookupBecomeHiddenViews) {
  const auto views = HostInterface::viewTree()->windows();
  ASSERT_EQ(views.size(), 1U);
  std::vector<std::shared_ptr<View>> all(views.begin(), views.end());
  std::thread([&views] { EXPECT_TRUE(views[0]->isHidden()) << "other threads see no widgets"; }).join();
  for (std::size_t i = 0; i < all.size(); ++i) {  // grows meanwhile
    for (const auto& view : all[i]->subviews()) all.push_back(view);
  }
  ASSERT_GT(all.size(), 6U);
  window_.reset();
  for (const auto& view : all) {
    EXPECT_TRUE(view->isHidden());
    EXPECT_EQ(view->frame().width, 0);
    EXPECT_TRUE(view->subviews().empty());
    EXPECT_EQ(view->nativeID(), std::nullopt);
    EXPECT_FALSE(view->indexPathForCell(*view).has_value());
    view->setTag(1);
    EXPECT_EQ(view->tag(), 0);
  }
}

TEST_F(Widgets, OnlyOneWindowIsKeyWhileAMenuIsOpen) {
  QMenu menu(window_.get());
  menu.addAction("Copy");
  menu.popup({0, 0});
  std::size_t keys = 0;
  for (const auto& window : HostInterface::viewTree()->windows()) keys += window->isKey() ? 1 : 0;
  EXPECT_EQ(keys, 1U);
  EXPECT_EQ(KLVUtilities::keyWindow()->className(), "QMainWindow");
}

TEST_F(Widgets, TagsStayWithTheirRows) {
  EXPECT_EQ(found("UITableViewCell:1"), "UITableViewCell");
  auto cell = find("1", "t");
  rows->insertItem(0, "new");
  delete rows->takeItem(1);  // was the first one
  EXPECT_EQ(cell->frame().y, find("1", "t")->frame().y);
  EXPECT_EQ(cell->tag(), 1);
  delete rows->takeItem(1);
  EXPECT_TRUE(cell->isHidden());
  EXPECT_EQ(found("1", "t"), "-");

  // The model's persistent indexes belong to the view, not to the cells: a cell may be released on another thread,
  // which must not touch the model.
  struct Model final : QStringListModel {
    using QStringListModel::persistentIndexList, QStringListModel::QStringListModel;
  } model({"one", "two", "three"});
  auto view = std::make_unique<QListView>();
  view->setModel(&model);
  view->show();
  cell = qt::cellsOf(*view).at(1);
  EXPECT_EQ(model.persistentIndexList().size(), 3);
  view.reset();
  EXPECT_TRUE(model.persistentIndexList().isEmpty());
}

TEST_F(Widgets, CellsAreTheVisibleRows) {
  const auto put = [this](QWidget* items) {
    delete window_->takeCentralWidget();
    window_->setCentralWidget(items);
    QCoreApplication::processEvents();
  };
  using Places = std::vector<std::pair<std::int64_t, std::int64_t>>;
  const auto places = [](QAbstractItemView* items) {
    Places all;
    for (const auto& cell : qt::cellsOf(*items)) {
      if (const auto place = qt::placeOf(*cell, *items)) all.emplace_back(place->section, place->row);
    }
    return all;
  };
  auto* tree = new QTreeWidget;
  for (int i = 0; i < 2; ++i) {
    auto* top = new QTreeWidgetItem(tree, {"top"});
    new QTreeWidgetItem(top, {"child"});
    new QTreeWidgetItem(new QTreeWidgetItem(top, {"child"}), {"grandchild"});
  }
  tree->topLevelItem(1)->setExpanded(true);
  tree->topLevelItem(1)->child(1)->setExpanded(true);
  put(tree);
  EXPECT_EQ(places(tree), (Places{{0, 0}, {1, 0}, {1, 1}, {1, 2}}));

  tree->setRootIndex(tree->model()->index(1, 0));
  EXPECT_EQ(places(tree), (Places{{0, 0}, {1, 0}, {1, 1}})) << "from the root of the tree";

  auto* icons = new QListWidget;
  icons->setViewMode(QListView::IconMode);
  icons->setSpacing(20);
  icons->addItems({"one", "two", "three"});
  put(icons);
  EXPECT_EQ(places(icons), (Places{{0, 0}, {0, 1}, {0, 2}}));

  auto* table = new QTableWidget(5000, 2);
  put(table);
  table->setRowHidden(2500, true);
  table->scrollTo(table->model()->index(2499, 0), QAbstractItemView::PositionAtTop);
  const auto shown = places(table);
  ASSERT_FALSE(shown.empty());
  EXPECT_EQ(shown[0], Places::value_type(0, 2499));
  EXPECT_LT(shown.size(), 30U) << "rows out of sight have no cells";
  EXPECT_EQ(std::count(shown.begin(), shown.end(), Places::value_type(0, 2500)), 0);
  table->setColumnHidden(0, true);
  EXPECT_EQ(places(table), shown);
  table->setColumnHidden(0, false);
  table->setColumnWidth(1, 5000);
  table->horizontalScrollBar()->setValue(table->horizontalScrollBar()->maximum());
  EXPECT_EQ(places(table), shown) << "the first column is out of sight";
}

TEST_F(Widgets, TheScreenIsThePageTabOrDialogInFront) {
  qt::ScreenFollower screens;
  const auto shown = [&] { return Widgets::shown(screens); };
  window_->setWindowTitle("Shop[*]");
  EXPECT_EQ(shown(), "QMainWindow/Shop");

  auto* tabs = new QTabWidget;
  auto* first = new QWidget;
  first->setObjectName("firstTab");
  tabs->addTab(first, "&First && last");
  auto* inner = new QStackedWidget;
  inner->addWidget(new BuyButton("Buy"));
  tabs->addTab(inner, "Second");
  window_->setCentralWidget(tabs);
  QCoreApplication::processEvents();
  EXPECT_EQ(shown(), "firstTab/First & last");
  tabs->setCurrentIndex(1);
  EXPECT_EQ(shown(), "BuyButton/Shop");

  QDialog dialog(window_.get());
  dialog.setWindowTitle("Settings");
  dialog.open();
  EXPECT_EQ(shown(), "QDialog/Settings");
  QDialog question(&dialog);
  question.setObjectName("question");
  question.open();
  EXPECT_EQ(shown(), "question/-");
  question.close();
  EXPECT_EQ(shown(), "QDialog/Settings");

  QMainWindow other;
  other.setWindowTitle("Other");
  other.resize(900, 900);
  activate(other);
  EXPECT_EQ(shown(), "QMainWindow/Other") << "the dialog belongs to another window";
  QWidget tool(&other, Qt::Tool);
  activate(tool);
  EXPECT_EQ(shown(), "QMainWindow/Other") << "a tool is not a screen";
  dialog.close();
  activate(*window_);
  EXPECT_EQ(shown(), "BuyButton/Shop");
  QApplication::setActiveWindow(nullptr);
  EXPECT_EQ(shown(), "BuyButton/Shop") << "also in the background";
  other.hide();
  window_->showMinimized();
  EXPECT_EQ(shown(), "none");
  window_->hide();
  EXPECT_EQ(shown(), "none");
}

TEST_F(Widgets, StepsAndLayoutsArePagesButNotTheStacksInsideOfQtsDialogs) {
  qt::ScreenFollower screens;
  const auto shown = [&] { return Widgets::shown(screens); };
  window_->setWindowTitle("Shop");
  auto* page = new QWidget;
  auto* column = new QVBoxLayout(page);
  auto* stack = new QStackedLayout;
  column->addWidget(new QLabel("Heading"));
  column->addLayout(stack);
  auto* first = new QStackedWidget;
  first->addWidget(new BuyButton("Buy"));
  stack->addWidget(first);
  stack->addWidget(new QTreeWidget);
  stack->widget(1)->setObjectName("orders");
  window_->setCentralWidget(page);
  QCoreApplication::processEvents();
  EXPECT_EQ(shown(), "BuyButton/Shop");
  stack->setCurrentIndex(1);
  EXPECT_EQ(shown(), "orders/Shop");

  struct Payment final : QWizardPage {};
  QWizard wizard(window_.get());
  wizard.setObjectName("Order");
  for (QWizardPage* step : {new QWizardPage, static_cast<QWizardPage*>(new Payment), new QWizardPage}) {
    step->setTitle(QString("Step %1").arg(wizard.addPage(step)));
  }
  activate(wizard);
  EXPECT_EQ(shown(), "Order-0/Step 0");
  wizard.next();
  EXPECT_EQ(shown(), "Payment/Step 1");
  wizard.next();
  EXPECT_EQ(shown(), "Order-2/Step 2");
  wizard.close();

  struct OpenPicture final : QFileDialog {
    using QFileDialog::QFileDialog;
  } files(window_.get());
  files.setOption(QFileDialog::DontUseNativeDialog);
  files.setWindowTitle("Open");
  files.resize(900, 900);
  activate(files);
  EXPECT_EQ(shown(), "OpenPicture/Open");
  QDialog notes(window_.get());
  notes.resize(900, 900);
  auto* sheets = new QStackedWidget(&notes);
  sheets->resize(900, 900);
  sheets->addWidget(new BuyButton("Note"));
  activate(notes);
  EXPECT_EQ(shown(), "BuyButton/-");
  activate(*window_);
  EXPECT_EQ(shown(), "orders/Shop") << "the stacks of another window are not pages of this one";
}

TEST_F(Widgets, AHostNamesItsWindowsAndPages) {
  qt::ScreenFollower screens;
  struct Document final : QMainWindow {};
  Document document;
  activate(document);
  EXPECT_EQ(shown(screens), "Document/-");
  document.setObjectName("left");
  EXPECT_EQ(shown(screens), "left/-");
  document.setCentralWidget(new QStackedWidget);
  auto* page = new BuyButton("Buy");
  static_cast<QStackedWidget*>(document.centralWidget())->addWidget(page);
  page->setObjectName("buy");
  QCoreApplication::processEvents();
  EXPECT_EQ(shown(screens), "BuyButton/-") << "the class of a page already names it";
  page->setProperty(qt::kScreenProperty, "Checkout");
  EXPECT_EQ(shown(screens), "Checkout/-");
}

TEST_F(Widgets, AScreenIsAnnouncedAndReportedOnceAndALookupDoesNotSuppressIt) {
  std::vector<std::string> reported;
  std::vector<NotificationCenter::Observation> observations;
  for (const auto& [notification, prefix] :
       {std::pair(kWillShowViewController, "will show "), std::pair(kDidShowViewController, "shows ")}) {
    const auto note = [&reported, prefix = prefix](const std::any& screen) {
      MainQueue::async(
          [&reported, text = prefix + std::any_cast<Screen>(screen).className] { reported.push_back(text); });
    };
    observations.push_back(NotificationCenter::defaultCenter().observe(notification, note));
  }
  auto* page = new QWidget;
  auto* pages = new QStackedLayout(page);
  pages->setStackingMode(QStackedLayout::StackAll);
  for (const char* name : {"first", "second"}) {
    pages->addWidget(new QWidget);
    pages->widget(pages->count() - 1)->setObjectName(name);
  }
  window_->setCentralWidget(page);
  QTest::qWait(20);
  EXPECT_TRUE(reported.empty()) << "the library has not started";
  KelvoSDK::initializeKelvoWithID("shop");
  bool isLookedUp = false;
  KLVController::sharedController().whenStored([&] { MainQueue::async([&] { isLookedUp = true; }); });
  ASSERT_TRUE(QTest::qWaitFor([&] { return isLookedUp && qt::Foreground::isActive(); }, 20000));
  EXPECT_EQ(KLVUtilities::keyWindow()->rootViewController()->className(), "first");
  pages->setCurrentIndex(1);
  EXPECT_EQ(found("17", "t"), "-");
  EXPECT_TRUE(QTest::qWaitFor([&] { return reported.size() > 1; }, 20000));
  EXPECT_EQ(reported, (std::vector<std::string>{"will show second", "shows second"}));
}

TEST_F(Widgets, TasksRunWhileAnotherTaskShowsADialog) {
  std::string order;
  QEventLoop dialog;
  MainQueue::async([&] {
    order += "(";
    dialog.exec();
    order += ")";
  });
  MainQueue::async([&] { order += "2"; });
  MainQueue::async([&] {
    order += "3";
    MainQueue::async([&] { dialog.quit(); });
  });
  EXPECT_TRUE(QTest::qWaitFor([&] { return order.size() == 4; }, 20000));
  EXPECT_EQ(order, "(23)");
}

TEST(Application, ASecondApplicationCanBeAttachedAfterTheFirstIsDestroyed) {
  qputenv("QT_QPA_PLATFORM", "offscreen");
  char name[] = "test";
  char* arguments[] = {name, nullptr};
  int count = 1;
  for (int i = 0; i < 2; ++i) {
    bool ran = false;
    {
      QApplication application(count, arguments);
      qt::attach(application);
      ASSERT_NE(HostInterface::viewTree(), nullptr);
      MainQueue::async([&ran] { ran = true; });
    }
    EXPECT_TRUE(ran) << "waiting tasks run at the end";
    EXPECT_EQ(HostInterface::viewTree(), nullptr);
    EXPECT_FALSE(MainQueue::isCurrent());
    waitForMainLoop();  // the library's own loop runs again
  }
}

TEST_F(Widgets, TheApplicationsEventLoopRunsTheMainQueue) {
  constexpr int kTasks = 2000;
  int last = 0;
  std::atomic<bool> finished = false;
  std::thread elsewhere([&] {
    for (int task = 1; task <= kTasks; ++task) {
      MainQueue::async([&last, task] { EXPECT_EQ(std::exchange(last, task), task - 1); });
    }
    runOnMainLoop([] { EXPECT_TRUE(MainQueue::isCurrent()); });
    finished = true;
  });
  EXPECT_TRUE(QTest::qWaitFor([&] { return finished.load(); }, 20000));
  elsewhere.join();
  EXPECT_EQ(last, kTasks);
}

TEST(Attributes, KeepTheTypesOfQt) {
  constexpr qulonglong kLargest = 18446744073709551615ULL;
  const std::pair<QVariant, Value> cases[] = {
      {"Grüße", "Grüße"},
      {3, 3},
      {QVariant::fromValue(kLargest), Value(kLargest)},
      {12.5, 12.5},
      {true, true},
      {QByteArray("\x01\x02", 2), Data{1, 2}},
      {QDateTime::fromMSecsSinceEpoch(1500), Date(std::chrono::milliseconds(1500))},
      {QVariantList{1, "two", QVariantMap{{"three", 3}}}, Array{1, "two", Dictionary{{"three", 3}}}},
      {QStringList{"a", "b"}, Array{"a", "b"}},
      {QUrl("https://example.com/"), "https://example.com/"},
      {QVariant::fromValue(nullptr), nullptr},
      {QVariant(), nullptr}};
  for (const auto& [held, carried] : cases) EXPECT_EQ(qt::attributes({{"key", held}}), (Dictionary{{"key", carried}}));
}

}  // namespace
}  // namespace kelvo::test
