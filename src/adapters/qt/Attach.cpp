#include <QDateTime>
#include <QScreen>
#include <QThread>
#include <QTimer>
#include <exception>
#include <utility>
#include <vector>

#include "adapters/qt/MainLoopRelay.h"
#include "adapters/qt/ScreenFollower.h"
#include "adapters/qt/WidgetTree.h"
#include "kelvo/Qt.h"

namespace kelvo::qt {
namespace {

/// The adapter's state for the attached application. Thread: the main thread only.
struct Attachment {
  MainLoopRelay* relay = nullptr;                       // nullptr while no application is attached
  std::vector<std::unique_ptr<MainLoopRelay>> retired;  // of earlier applications; threads may still post to them
  std::unique_ptr<ScreenFollower> screens;              // nullptr until the library has started
  std::unique_ptr<QTimer> leaving;                      // runs from the loss of focus until that counts as background
  bool active = false;                                  // as last reported to the library
};

/// The application counts as in the background after this time without focus. With some window systems it loses the
/// focus for a moment when the user changes from one of its windows to another.
constexpr std::chrono::milliseconds kLongestFocusGap{250};

/// Returns the one state of the process. Never destroyed, so that no destructor runs at exit.
Attachment& attachment() {
  static auto* const instance = std::make_unique<Attachment>().release();
  return *instance;
}

/// Reports a change of foreground and background.
void setActive(bool active) {
  if (std::exchange(attachment().active, active) == active) return;
  active ? Application::didBecomeActive() : Application::willResignActive();
}

/// Reports `state` once the library has started; a loss of focus only after a delay.
void followState(Qt::ApplicationState state) {
  const Attachment& attached = attachment();
  if (attached.screens == nullptr) return;
  if (state == Qt::ApplicationInactive && attached.active) return attached.leaving->start();
  attached.leaving->stop();
  setActive(state == Qt::ApplicationActive);
}

/// Starts to report screens and activity. The view tree calls this when the library has started. Later calls do
/// nothing.
void startReporting() {
  Attachment& attached = attachment();
  if (attached.screens != nullptr || attached.relay == nullptr) return;
  attached.screens = std::make_unique<ScreenFollower>();
  followState(QGuiApplication::applicationState());
}

/// Returns the screen in front, nullptr if there is none. The library reports this screen itself, so the follower does
/// not report it again.
std::shared_ptr<ViewController> takeShownScreen() {
  const auto& screens = attachment().screens;
  return screens ? screens->takeShown() : nullptr;
}

/// Called when the application object is destroyed. Reports the background, which also ends the time on the last
/// screen, and hands the main queue back to the library's own main loop.
void detach() {
  Attachment& attached = attachment();
  setActive(false);
  Application::setViewTree(nullptr);
  attached.screens.reset();
  attached.leaving.reset();
  Application::setMainLoop({}, {});
  attached.relay->close();
  attached.retired.emplace_back(std::exchange(attached.relay, nullptr));
}

void attachOnMainThread(QApplication& application) {
  Attachment& attached = attachment();
  attached.relay = std::make_unique<MainLoopRelay>().release();
  Application::setMainLoop([relay = attached.relay](MainLoopRelay::Task task) { relay->post(std::move(task)); },
                           [relay = attached.relay] { return relay->isCurrent(); });
  if (const QScreen* screen = QGuiApplication::primaryScreen()) {
    Application::setScreenSize(static_cast<float>(screen->size().width()), static_cast<float>(screen->size().height()));
  }
  attached.leaving = std::make_unique<QTimer>();
  attached.leaving->setSingleShot(true);
  attached.leaving->setInterval(kLongestFocusGap);
  QObject::connect(attached.leaving.get(), &QTimer::timeout, attached.relay, [] { setActive(false); });
  QObject::connect(&application, &QGuiApplication::applicationStateChanged, attached.relay, followState);
  qAddPostRoutine(detach);
  Application::setViewTree(std::make_shared<WidgetTree>(startReporting, takeShownScreen));
}

}  // namespace

void attach(QApplication& application) noexcept {
  try {
    if (QThread::currentThread() != application.thread()) {
      qWarning("kelvo::qt::attach was called on another thread than the application's; nothing is attached");
    } else if (attachment().relay != nullptr) {
      qWarning("kelvo::qt::attach was called before; the second call does nothing");
    } else {
      attachOnMainThread(application);
    }
  } catch (const std::exception& error) {
    qWarning("kelvo::qt::attach failed: %s", error.what());
  }
}

}  // namespace kelvo::qt
