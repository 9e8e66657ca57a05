#include <QAbstractEventDispatcher>
#include <QFontDatabase>
#include <QFontInfo>
#include <QScreen>
#include <QThread>
#include <QTimer>
#include <exception>
#include <utility>
#include <vector>

#include "adapters/qtgui/Foreground.h"
#include "adapters/qtgui/MainLoopRelay.h"
#include "adapters/qtgui/Screens.h"
#include "kelvo/QtGui.h"
#ifdef KELVO_TESTING
#include "platform/Context.h"
#endif

namespace kelvo::qt {
namespace {

/// The state of the adapters for the attached application. Thread: the main thread only.
struct Attachment {
  MainLoopRelay* relay = nullptr;                       // nullptr while the library does not use the application
  std::vector<std::unique_ptr<MainLoopRelay>> retired;  // closed ones; threads may still post to them
  std::unique_ptr<Foreground> foreground;               // nullptr while no application is attached
  std::unique_ptr<QTimer> soon;  // delays a report of the screen in front; nullptr until the library has started
  Screens screens;
};

/// Returns the one state of the process. Never destroyed, so that no destructor runs at exit.
Attachment& attachment() {
  static auto* const instance = std::make_unique<Attachment>().release();
  return *instance;
}

/// Starts to report screens and activity. Later calls do nothing.
void startReporting() {
  Attachment& attached = attachment();
  if (attached.soon != nullptr || attached.relay == nullptr) return;
  attached.soon = std::make_unique<QTimer>();
  attached.soon->setSingleShot(true);
  attached.soon->setInterval(0);
  QObject::connect(attached.soon.get(), &QTimer::timeout, attached.relay, [] {
    if (Foreground::isActive()) attachment().screens.report();
  });
  attached.foreground->start();
}

QString withoutSpaces(QString text) {
  return text.remove(u' ');
}

/// The windows of all toolkits and the fonts of the application. Thread: the main thread only.
class ApplicationTree final : public ViewTree {
 public:
  /// Returns the visible windows. The first call also starts the reports of screens and activity.
  ///
  /// The public API does not tell an adapter when the library has started. But the library looks up the windows only
  /// after its start: at first to find the screen in front, which it then reports itself. So the first lookup means
  /// that the library has started, and the adapter starts to report here. An earlier report would be lost. If the
  /// adapter started later, it would report the first screen again.
  [[nodiscard]] std::vector<std::shared_ptr<Window>> windows() override {
    startReporting();
    return attachment().screens.windows();
  }

  [[nodiscard]] std::optional<Font> font(const Dictionary& attributes, double size) const override {
    const auto textAt = [&](std::string_view key) {
      return QString::fromStdString(attributes[key].asText().value_or(std::string()));
    };
    QString family = textAt(kFontFamilyAttribute);
    const QString face = textAt(kFontFaceAttribute);
    if (family.isEmpty()) family = textAt(kFontNameAttribute);
    if (family.isEmpty() && face.isEmpty()) return std::nullopt;
    if (family.isEmpty()) family = QGuiApplication::font().family();
    if (!QFontDatabase::hasFamily(family)) return std::nullopt;
    const QFont font = QFontDatabase::font(family, face, static_cast<int>(size));
    const QFontInfo actual(font);
    const QString style =
        withoutSpaces(actual.styleName().isEmpty() ? QFontDatabase::styleString(actual) : actual.styleName());
    const QString name = withoutSpaces(actual.family()) + (style.isEmpty() ? QString() : u'-' + style);
    return Font{name.toStdString(), size};
  }
};

/// Reports the background, which also ends the time on the last screen, and hands the main queue back to the library's
/// own main loop. Does nothing if the library does not use the application.
void disconnectLibrary() {
  Attachment& attached = attachment();
  if (attached.relay == nullptr) return;
  attached.foreground->end();
  Application::setViewTree(nullptr);
  attached.screens.forgetReported();
  attached.soon.reset();
  Application::setMainLoop({}, {});
  attached.relay->close();
  attached.retired.emplace_back(std::exchange(attached.relay, nullptr));
}

/// Gives the library the application's main loop, screen size and views.
void connectLibrary() {
  Attachment& attached = attachment();
  attached.relay = std::make_unique<MainLoopRelay>().release();
  Application::setMainLoop([relay = attached.relay](MainLoopRelay::Task task) { relay->post(std::move(task)); },
                           [relay = attached.relay] { return relay->isCurrent(); });
  if (const QScreen* screen = QGuiApplication::primaryScreen()) {
    Application::setScreenSize(static_cast<float>(screen->size().width()), static_cast<float>(screen->size().height()));
  }
  Application::setViewTree(std::make_shared<ApplicationTree>());
}

#ifdef KELVO_TESTING

constexpr int kMostRounds = 20;  // an application may always have another event

/// Handles the events that wait, and those that they make.
void handleEvents() {
  if (QCoreApplication::instance() == nullptr || QThread::currentThread() != qApp->thread()) return;
  auto& events = *QAbstractEventDispatcher::instance();
  for (int round = 0; round < kMostRounds && events.processEvents(QEventLoop::AllEvents); ++round) {
  }
}

/// Has each launch of a recorder use the application, and a recorder's functions handle its events.
void followLaunches() {
  context::setEventLoop({connectLibrary, disconnectLibrary, handleEvents});
}

void followNoLaunches() {
  context::setEventLoop({});
}

#else

void followLaunches() {}
void followNoLaunches() {}

#endif

/// Called when the application object is destroyed.
void detach() {
  followNoLaunches();
  disconnectLibrary();
  attachment().screens = {};
  attachment().foreground.reset();
}

void attachOnMainThread(QGuiApplication& application) {
  attachment().foreground = std::make_unique<Foreground>(application, [] { attachment().screens.report(); });
  qAddPostRoutine(detach);
  connectLibrary();
  followLaunches();
}

}  // namespace

bool attachApplication(QGuiApplication& application) noexcept {
  try {
    if (QThread::currentThread() != application.thread()) {
      qWarning("kelvo::qt::attach was called on another thread than the application's; nothing is attached");
    } else if (attachment().foreground != nullptr) {
      qWarning("kelvo::qt::attach was called before; the second call does nothing");
    } else {
      attachOnMainThread(application);
      return true;
    }
  } catch (const std::exception& error) {
    qWarning("kelvo::qt::attach failed: %s", error.what());
  }
  return false;
}

void attach(QGuiApplication& application) noexcept {
  attachApplication(application);
}

void addToolkit(std::unique_ptr<Toolkit> toolkit) {
  attachment().screens.add(std::move(toolkit));
  screensMayHaveChanged();
}

void screensMayHaveChanged() {
  if (attachment().soon != nullptr) attachment().soon->start();
}

std::optional<std::shared_ptr<ViewController>> embeddedScreen(const QWindow& window) {
  return attachment().screens.screenInside(window);
}

std::vector<std::shared_ptr<View>> embeddedViews(const QWindow& window, const QRect& place) {
  return attachment().screens.viewsInside(window, place);
}

std::shared_ptr<ViewController> takeScreenInFront() {
  return attachment().screens.take();
}

}  // namespace kelvo::qt
