#include <fcntl.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QEvent>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>

#include "kelvo/QtGui.h"

namespace kelvo::qt {
namespace {

constexpr std::array kSignals{SIGTERM, SIGINT};
constexpr std::chrono::milliseconds kRetryInterval{50};

/// The pipe by which the handler wakes the event loop. It stays open: the handler may run until the process ends.
std::array<int, 2> wakeUp{-1, -1};
pid_t owner = 0;  // the process that opened the pipe

extern "C" void kelvoQuitOnSignal(int signal) {
  const int error = errno;
  if (::getpid() == owner) {
    const ssize_t written = ::write(wakeUp[1], "", 1);  // fails only if the pipe is full of wake-ups
    static_cast<void>(written);
  } else {
    ::raise(signal);  // a forked child ends by the signal, since SA_RESETHAND has reset its effect
  }
  errno = error;
}

/// Quits the application when the handler has run. A child object of the application. Once it is destroyed, the signals
/// end the process again.
class SignalQuitter final : public QSocketNotifier {
 public:
  explicit SignalQuitter(QObject* parent) : QSocketNotifier(wakeUp[0], QSocketNotifier::Read, parent) {
    connect(this, &QSocketNotifier::activated, this, [this] {
      std::array<char, 16> wakeUps{};
      if (::read(wakeUp[0], wakeUps.data(), wakeUps.size()) > 0) quit();
    });
    struct sigaction handler {};
    handler.sa_handler = kelvoQuitOnSignal;
    handler.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    sigemptyset(&handler.sa_mask);
    for (const int signal : kSignals) replace(signal, SIG_DFL, handler);
  }
  ~SignalQuitter() override {
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    for (const int signal : kSignals) replace(signal, kelvoQuitOnSignal, fallback);
  }

 protected:
  bool eventFilter(QObject* /*application*/, QEvent* event) override {
    if (event->type() == QEvent::Quit) asked_ = true;
    return false;
  }

 private:
  /// Quits. Qt ignores that before `exec` runs, so it tries again until the windows are asked to close.
  void quit() {
    parent()->installEventFilter(this);
    asked_ = false;
    QCoreApplication::quit();
    parent()->removeEventFilter(this);
    if (!asked_) QTimer::singleShot(kRetryInterval, this, [this] { quit(); });
  }
  /// Sets the action of `signal` if its handler is `expected`: one of the host's stays.
  static void replace(int signal, void (*expected)(int), const struct sigaction& action) {
    struct sigaction present {};
    if (::sigaction(signal, nullptr, &present) != 0 || present.sa_handler != expected) return;
    ::sigaction(signal, &action, nullptr);
  }

  bool asked_ = false;
};

}  // namespace

void quitOnSignals() noexcept {
  QCoreApplication* application = QCoreApplication::instance();
  if (application == nullptr || QThread::currentThread() != application->thread()) {
    qWarning("kelvo::qt::quitOnSignals needs an application object, and its thread; signals end the process");
  } else if (wakeUp[0] < 0 && ::pipe2(wakeUp.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
    qWarning("kelvo::qt::quitOnSignals has no descriptors left; signals end the process");
  } else {
    owner = ::getpid();
    std::make_unique<SignalQuitter>(application).release();  // its parent owns it
  }
}

}  // namespace kelvo::qt
