#include "adapters/qtgui/Foreground.h"

#include <QEvent>
#include <QWindow>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <utility>

#include "kelvo/Application.h"

namespace kelvo::qt {
namespace {

using namespace std::chrono_literals;

/// The application counts as in the background after this time without focus. With some window systems it loses the
/// focus for a moment when the user changes from one of its windows to another. A window that has just appeared gets
/// the same time to receive the focus.
constexpr auto kLongestFocusGap = 250ms;

/// Whether the application is in the foreground, as last reported. Any thread may end the process.
std::atomic<bool> active = false;

void setActive(bool is) {
  if (active.exchange(is) == is) return;
  is ? Application::didBecomeActive() : Application::willResignActive();
}

/// Has the end of the process leave the foreground, even if `std::exit` leaves the application object alive. The
/// library's own exit handler, registered when it was loaded, runs after this one.
void leaveAtExit() {
  static const bool registered = std::atexit([] { setActive(false); }) == 0;
  static_cast<void>(registered);
}

bool isAnyWindowVisible() {
  const auto windows = QGuiApplication::topLevelWindows();
  return std::any_of(windows.begin(), windows.end(),
                     [](const QWindow* window) { return window->isVisible() && window->isExposed(); });
}

}  // namespace

Foreground::Foreground(QGuiApplication& application, std::function<void()> beforeEntering)
    : beforeEntering_(std::move(beforeEntering)),
      state_(QGuiApplication::applicationState()),
      hadFocus_(state_ == Qt::ApplicationActive) {
  soon_.setSingleShot(true);
  connect(&soon_, &QTimer::timeout, this, [this] { settle(); });
  connect(&application, &QGuiApplication::applicationStateChanged, this, [this](auto state) { follow(state); });
  application.installEventFilter(this);
  leaveAtExit();
}

bool Foreground::isActive() {
  return active;
}

void Foreground::start() {
  started_ = true;
  follow(state_);
}

void Foreground::end() {
  started_ = false;
  soon_.stop();
  setActive(false);
}

void Foreground::follow(Qt::ApplicationState state) {
  state_ = state;
  if (state == Qt::ApplicationActive) hadFocus_ = true;
  if (!started_) return;
  // The application becomes active before Qt knows which window is: the report waits until the current events are over.
  if (state == Qt::ApplicationActive) return soon_.start(0ms);
  if (state == Qt::ApplicationInactive) return soon_.start(kLongestFocusGap);
  settle();
}

void Foreground::settle() {
  soon_.stop();
  const bool entered = hadFocus_ ? state_ == Qt::ApplicationActive : isAnyWindowVisible();
  if (entered && !active) beforeEntering_();
  setActive(entered);
}

bool Foreground::eventFilter(QObject* watched, QEvent* event) {
  const bool concernsVisibility = event->type() == QEvent::Expose || event->type() == QEvent::Hide;
  if (concernsVisibility && !hadFocus_ && watched->isWindowType() && started_) soon_.start(kLongestFocusGap);
  return false;
}

}  // namespace kelvo::qt
