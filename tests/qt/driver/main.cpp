// Clicks through the shop as a customer would and turns to another application; comes back for a moment for each line
// of standard input, and ends with it. With an argument it also keeps a picture of the shop there; with two, the second
// one says in which order the shop is opened, and nobody visits it: see `open`.
#include <unistd.h>
#include <QApplication>
#include <QSocketNotifier>
#include <QtTest/QTest>
#include <cstdio>

#include "Shop.h"
#include "kelvo/Qt.h"

namespace {

constexpr int kPatience = 20000;  // milliseconds
constexpr int kMoreThanASecond = 1100;

void click(QWidget* widget) {
  QTest::mouseClick(widget, Qt::LeftButton);
}

void clickItem(QListWidget* list, int row) {
  QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualItemRect(list->item(row)).center());
}

/// Waits until `condition` holds, and what follows from it has happened.
template <class Condition>
bool reached(Condition condition) {
  const bool holds = QTest::qWaitFor(condition, kPatience);
  QTest::qWait(0);
  return holds;
}

bool shows(const QWidget* page) {
  return reached([page] { return page->isVisible(); });
}

/// What a window system tells when the user turns to another application; the offscreen platform has no other.
void setState(Qt::ApplicationState state) {
  Q_EMIT qGuiApp->applicationStateChanged(state);
  QTest::qWait(0);
}

/// Each letter is a step: "a"ttach, "i"nitialize, "s"how, and "w"ait, in which the event loop runs.
bool open(QApplication& app, shop::Window& window, const char* steps) {
  for (const char* step = steps; *step != '\0'; ++step) {
    if (*step == 'a') kelvo::qt::attach(app);
    if (*step == 'i') kelvo::KelvoSDK::initializeKelvoWithID("tea-shop");
    if (*step == 's') window.show();
    if (*step == 'w') QTest::qWait(100);
  }
  const bool started = QTest::qWaitFor([] { return kelvo::KelvoSDK::getDeviceID().has_value(); }, kPatience);
  return started && QTest::qWaitForWindowActive(&window, kPatience);
}

bool visit(shop::Window& window, const QString& picture) {
  QTest::qWait(kMoreThanASecond);  // the time on the first screen is a second at least

  clickItem(window.list->products, 1);
  if (!shows(window.detail)) return false;
  click(window.detail->buy);
  if (!shows(window.basket)) return false;
  click(window.basket->checkOut);
  if (!shows(window.list)) return false;
  if (!picture.isEmpty() && !window.grab().save(picture)) return false;

  click(window.list->toSettings);
  if (!reached([] { return QApplication::activeModalWidget() != nullptr; })) return false;
  static_cast<QDialog*>(QApplication::activeModalWidget())->accept();
  if (!reached([] { return QApplication::activeModalWidget() == nullptr; })) return false;

  setState(Qt::ApplicationInactive);
  return true;
}

void comeBackForEachLine() {
  QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
  QObject::connect(&input, &QSocketNotifier::activated, qApp, [] {
    char byte = 0;
    if (::read(STDIN_FILENO, &byte, 1) != 1) return QCoreApplication::quit();
    if (byte != '\n') return;
    setState(Qt::ApplicationInactive);
    setState(Qt::ApplicationActive);  // on the way to another window
    setState(Qt::ApplicationSuspended);
  });
  QApplication::exec();
}

}  // namespace

int main(int argc, char** argv) {
  QApplication app(argc, argv);
  shop::Window window;
  const bool complete =
      argc > 2 ? open(app, window, argv[2]) : open(app, window, "ais") && visit(window, argc > 1 ? argv[1] : QString());
  if (complete) comeBackForEachLine();
  if (!complete) std::fputs("the visit was not complete\n", stderr);
  return complete ? 0 : 1;
}
