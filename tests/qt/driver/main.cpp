// driver [PICTURE [STEPS]]: clicks through the shop as a customer would. Saves a picture of the shop in PICTURE unless
// that is empty. With STEPS it only opens the shop in that order (see `open`). Then it obeys the words on its standard
// input (see `obey`), and quits at the end of the input.
#include <unistd.h>
#include <QApplication>
#include <QSocketNotifier>
#include <QtTest/QTest>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>

#include "Shop.h"
#include "kelvo/Qt.h"

namespace {

// In milliseconds.
constexpr int kPatience = 20000;
constexpr int kMoreThanASecond = 1100;
constexpr int kWaitStep = 100;

std::atomic<bool> isReady{false};  ///< the library collects

void click(QWidget* widget) {
  QTest::mouseClick(widget, Qt::LeftButton);
}

void clickItem(QListWidget* list, int row) {
  QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualItemRect(list->item(row)).center());
}

/// Waits until `condition` holds, then handles the pending events. Returns false after `kPatience`.
template <class Condition>
bool reached(Condition condition) {
  const bool holds = QTest::qWaitFor(condition, kPatience);
  QTest::qWait(0);
  return holds;
}

bool shows(const QWidget* page) {
  return reached([page] { return page->isVisible(); });
}

/// Signals the change that a window system signals when the user changes to another application or back. The offscreen
/// platform never does.
void setState(Qt::ApplicationState state) {
  Q_EMIT qGuiApp->applicationStateChanged(state);
  QTest::qWait(0);
}

/// Runs `steps`, one letter each: "a"ttach, "i"nitialize, "s"how, "w"ait (which handles events), and "k"ill with
/// SIGTERM. Returns whether the library has started and the window is visible.
bool open(QApplication& app, shop::Window& window, const char* steps) {
  for (const char* step = steps; *step != '\0'; ++step) {
    if (*step == 'a') kelvo::qt::attach(app);
    if (*step == 'i') kelvo::KelvoSDK::initializeKelvoWithID("tea-shop");
    if (*step == 's') window.show();
    if (*step == 'w') QTest::qWait(kWaitStep);
    if (*step == 'k') std::raise(SIGTERM);
  }
  kelvo::KelvoSDK::onReady([](const auto& status) { isReady = status.state == kelvo::KelvoSDK::State::running; });
  const bool started = QTest::qWaitFor([] { return isReady.load(); }, kPatience);
  return started && QTest::qWaitForWindowExposed(&window, kPatience);
}

bool visit(shop::Window& window, const QString& picture) {
  QTest::qWait(kMoreThanASecond);  // the test expects at least one second on the first screen

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
  return reached([] { return QApplication::activeModalWidget() == nullptr; });
}

/// Does what `word` says.
void obey(const std::string& word, shop::Window& window) {
  static std::unique_ptr<shop::Window> second;
  static const std::map<std::string, std::function<void()>> meanings = {
      {"away", [] { setState(Qt::ApplicationInactive); }},
      {"back", [] { setState(Qt::ApplicationActive); }},
      {"gap",  // as when the user changes from one window to another
       [] {
         Q_EMIT qGuiApp->applicationStateChanged(Qt::ApplicationInactive);
         setState(Qt::ApplicationActive);
       }},
      {"basket", [&] { click(window.list->toBasket); }},
      {"list", [&] { click(window.basket->back); }},
      {"second",  // a second window, in front of the first one
       [] {
         second = std::make_unique<shop::Window>();
         second->show();
         second->activateWindow();
         reached([] { return second->isActiveWindow(); });
       }},
      {"close",  // the second window
       [&] {
         second.reset();
         window.activateWindow();
         reached([&] { return window.isActiveWindow(); });
       }},
      {"exit", [] { std::exit(0); }}};  // NOLINT: the test is about the exit in a slot
  meanings.at(word)();
}

/// Obeys the words on standard input until it ends.
void obeyInput(shop::Window& window) {
  std::string word;
  QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
  QObject::connect(&input, &QSocketNotifier::activated, qApp, [&] {
    char byte = 0;
    if (::read(STDIN_FILENO, &byte, 1) != 1) return QCoreApplication::quit();
    if (byte != '\n') return word.push_back(byte);
    obey(std::exchange(word, {}), window);
  });
  QApplication::exec();
}

}  // namespace

int main(int argc, char** argv) {
  QApplication app(argc, argv);
  kelvo::qt::quitOnSignals();
  shop::Window window;
  const bool complete =
      argc > 2 ? open(app, window, argv[2]) : open(app, window, "ais") && visit(window, argc > 1 ? argv[1] : QString());
  if (complete) obeyInput(window);
  if (!complete) std::fputs("the visit was not complete\n", stderr);
  return complete ? 0 : 1;
}
