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

/// What an attached application holds. The relay outlives the application object, since tasks may still come.
struct Attachment {
  MainLoopRelay* relay = nullptr;
  std::vector<std::unique_ptr<MainLoopRelay>> retired;  // of earlier application objects
  std::unique_ptr<ScreenFollower> screens;              // once the library has started
  std::unique_ptr<QTimer> leaving;                      // runs while the application is about to be in the background
  bool active = false;
};

/// Without focus for so long, the application is in the background. With some window systems it has none for a moment
/// when the user goes from one of its windows to another.
constexpr std::chrono::milliseconds kLongestWayBetweenWindows{250};

Attachment& attachment() {
  static auto* const instance = std::make_unique<Attachment>().release();
  return *instance;
}

void setActive(bool active) {
  if (std::exchange(attachment().active, active) == active) return;
  active ? Application::didBecomeActive() : Application::willResignActive();
}

void follow(Qt::ApplicationState state) {
  const Attachment& attached = attachment();
  if (attached.screens == nullptr) return;
  if (state == Qt::ApplicationInactive && attached.active) return attached.leaving->start();
  attached.leaving->stop();
  setActive(state == Qt::ApplicationActive);
}

/// The library looks at the windows, so it has started. What is reported before would be lost, and what is reported
/// now, too, would be the same screen twice.
void begin() {
  Attachment& attached = attachment();
  if (attached.screens != nullptr || attached.relay == nullptr) return;
  attached.screens = std::make_unique<ScreenFollower>();
  follow(QGuiApplication::applicationState());
}

/// The application object dies, which also ends the time on the last screen: the library's own main loop takes over.
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
  attached.leaving->setInterval(kLongestWayBetweenWindows);
  QObject::connect(attached.leaving.get(), &QTimer::timeout, attached.relay, [] { setActive(false); });
  QObject::connect(&application, &QGuiApplication::applicationStateChanged, attached.relay, follow);
  qAddPostRoutine(detach);
  Application::setViewTree(std::make_shared<WidgetTree>(begin, []() -> std::shared_ptr<ViewController> {
    const auto& screens = attachment().screens;
    return screens ? screens->takeShown() : nullptr;
  }));
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
