// driver [visit]: opens the shop in Qt Quick. With "visit", clicks through it as a customer would. Then it obeys the
// words on its standard input (see `obey`). At the end of the input, it destroys the windows and quits.
#include <unistd.h>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QSocketNotifier>
#include <QTimer>
#include <QtTest/QTest>
#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "kelvo/QtGui.h"

namespace {

// In milliseconds.
constexpr int kPatience = 20000;
constexpr int kMoreThanASecond = 1100;

std::atomic<bool> isReady{false};  ///< the library collects

/// Returns the visible item `name` in `around`, nullptr if there is none.
QQuickItem* itemIn(QQuickItem* around, const QString& name) {
  if (around->isVisible() && around->objectName() == name) return around;
  for (QQuickItem* child : around->childItems()) {
    if (QQuickItem* found = itemIn(child, name)) return found;
  }
  return nullptr;
}

/// Returns the visible item `name` in any window.
QQuickItem* itemOf(const QString& name) {
  for (QWindow* window : QGuiApplication::topLevelWindows()) {
    auto* items = qobject_cast<QQuickWindow*>(window);
    if (items == nullptr || !items->isVisible()) continue;
    if (QQuickItem* found = itemIn(items->contentItem(), name)) return found;
  }
  return nullptr;
}

/// Runs the event loop until it has nothing to do for the moment: the adapter reports screens then.
void handleEvents() {
  for (int i = 0; i < 3; ++i) {
    QEventLoop loop;
    QTimer::singleShot(0, &loop, &QEventLoop::quit);
    loop.exec();
  }
}

bool isAtRest() {
  const QQuickItem* pages = itemOf("pages");
  const QQuickItem* shelves = itemOf("shelves");
  const auto* list = shelves != nullptr ? shelves->property("contentItem").value<QQuickItem*>() : nullptr;
  return !pages->property("busy").toBool() && (list == nullptr || !list->property("moving").toBool());
}

/// Clicks on the item `name` as soon as it is there, and waits until the shop is at rest. Returns false if the item
/// does not appear.
bool click(const char* name) {
  if (!QTest::qWaitFor([name] { return itemOf(name) != nullptr; }, kPatience)) return false;
  QQuickItem* item = itemOf(name);
  const QPointF centre = item->mapToScene(item->boundingRect().center());
  QTest::mouseClick(item->window(), Qt::LeftButton, {}, centre.toPoint());
  handleEvents();
  const bool rests = QTest::qWaitFor(isAtRest, kPatience);
  handleEvents();
  return rests;
}

bool isActive(const QString& window) {
  const bool holds = QTest::qWaitFor(
      [&window] {
        const QWindow* active = QGuiApplication::focusWindow();
        return active != nullptr && active->objectName() == window;
      },
      kPatience);
  handleEvents();
  return holds;
}

/// Signals the change that a window system signals when the user changes to another application or back. The offscreen
/// platform never does.
void setState(Qt::ApplicationState state) {
  Q_EMIT qGuiApp->applicationStateChanged(state);
  handleEvents();
}

bool visit() {
  QTest::qWait(kMoreThanASecond);  // the test expects at least one second on the first screen
  for (const char* name : {"toOffers", "toProducts", "Tea cup", "brewing", "brewing", "buy", "checkOut", "toHelp"}) {
    if (!click(name)) return false;
  }
  if (!isActive("help") || !click("closeHelp")) return false;
  itemOf("pages")->window()->requestActivate();  // the offscreen platform does not do it
  return isActive("shop");
}

/// Does what `word` says: changes to another application and back, or clicks on the item of this name.
void obey(const std::string& word) {
  if (word == "away") return setState(Qt::ApplicationInactive);
  if (word == "back") return setState(Qt::ApplicationActive);
  if (!click(word.c_str())) std::fprintf(stderr, "there is no %s\n", word.c_str());
}

/// Obeys the words on standard input until it ends.
void obeyInput() {
  std::string word;
  QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
  QObject::connect(&input, &QSocketNotifier::activated, qGuiApp, [&] {
    char byte = 0;
    if (::read(STDIN_FILENO, &byte, 1) != 1) return QCoreApplication::quit();
    if (byte != '\n') return word.push_back(byte);
    input.setEnabled(false);  // a click runs the event loop, which must not read the next word
    obey(std::exchange(word, {}));
    input.setEnabled(true);
  });
  QGuiApplication::exec();
}

}  // namespace

int main(int argc, char** argv) {
  QGuiApplication app(argc, argv);
  kelvo::qt::attach(app);
  kelvo::KelvoSDK::initializeKelvoWithID("tea-shop");
  auto engine = std::make_unique<QQmlApplicationEngine>(QUrl("qrc:/shop/Main.qml"));
  kelvo::KelvoSDK::onReady([](const auto& status) { isReady = status.state == kelvo::KelvoSDK::State::running; });
  const bool started = QTest::qWaitFor([] { return isReady.load(); }, kPatience);
  const bool complete = started && isActive("shop") && (argc < 2 || visit());
  std::puts("at rest");
  std::fflush(stdout);
  if (complete) obeyInput();
  if (!complete) std::fputs("the visit was not complete\n", stderr);
  engine.reset();
  handleEvents();
  return complete ? 0 : 1;
}
