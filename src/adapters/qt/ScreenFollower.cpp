#include "adapters/qt/ScreenFollower.h"

#include <QApplication>
#include <QEvent>
#include <QStackedWidget>
#include <QTabBar>
#include <QTabWidget>
#include <utility>

#include "adapters/qt/WeakWidget.h"
#include "adapters/qt/WidgetClasses.h"
#include "kelvo/Application.h"

namespace kelvo::qt {
namespace {

/// Whether `window` can be a screen: tools, menus, tooltips and the like are none.
bool isScreenWindow(const QWidget& window) {
  const auto type = window.windowType();
  return window.isVisible() && !window.isMinimized() &&
         (type == Qt::Window || type == Qt::Dialog || type == Qt::Sheet || type == Qt::Widget);
}

/// The window that `window` was made for, such as a dialog's; nullptr for none.
QWidget* windowAbove(const QWidget& window) {
  return window.parentWidget() != nullptr ? window.parentWidget()->window() : nullptr;
}

/// Whether `window` is `above`, or made for it at whatever depth.
bool isMadeFor(const QWidget* window, const QWidget& above) {
  while (window != nullptr && window != &above) window = windowAbove(*window);
  return window != nullptr;
}

/// Whether a modal dialog keeps the user from `window`.
bool isBlocked(const QWidget& window) {
  const QWidget* dialog = QApplication::activeModalWidget();
  if (dialog == nullptr || isMadeFor(&window, *dialog)) return false;
  return dialog->windowModality() == Qt::ApplicationModal || isMadeFor(dialog, window);
}

int areaOf(const QWidget& widget) {
  return widget.width() * widget.height();
}

/// The window in which the user is, `before` being the last one known. While none is active (the application is in the
/// background, or the window system takes its time), that stays.
QWidget* windowInFront(QWidget* before) {
  for (QWidget* window : {QApplication::activeWindow(), before, QApplication::activeModalWidget()}) {
    while (window != nullptr && !isScreenWindow(*window)) window = windowAbove(*window);
    if (window != nullptr && !isBlocked(*window)) return window;
  }
  QWidget* largest = nullptr;  // Qt tells them in no order
  for (QWidget* window : QApplication::topLevelWidgets()) {
    if (isScreenWindow(*window) && (largest == nullptr || areaOf(*window) > areaOf(*largest))) largest = window;
  }
  return largest;
}

/// The page in front within `widget`, at whatever depth; `widget` itself without pages.
QWidget* pageInFront(QWidget* widget) {
  auto* largest = qobject_cast<QStackedWidget*>(widget);
  if (largest != nullptr) return largest->currentWidget() == nullptr ? widget : pageInFront(largest->currentWidget());
  for (QStackedWidget* pages : widget->findChildren<QStackedWidget*>()) {
    if (!pages->isVisibleTo(widget) || pages->currentWidget() == nullptr) continue;
    // What lies within the pages of another is reached through it.
    if (largest != nullptr && (largest->isAncestorOf(pages) || areaOf(*pages) <= areaOf(*largest))) continue;
    largest = pages;
  }
  return largest == nullptr ? widget : pageInFront(largest->currentWidget());
}

QWidget* screenInFront(const QWidget* before) {
  QWidget* window = windowInFront(before != nullptr ? before->window() : nullptr);
  return window == nullptr ? nullptr : pageInFront(window);
}

/// "Fish & Chips" of "&Fish && Chips".
QString withoutMnemonics(const QString& text) {
  QString plain;
  for (qsizetype i = 0; i < text.size(); ++i) {
    if (text[i] == u'&' && ++i == text.size()) break;
    plain += text[i];
  }
  return plain;
}

QString tabTextOf(QWidget& page) {
  const auto* pages = qobject_cast<QStackedWidget*>(page.parentWidget());
  const auto* tabs = pages != nullptr ? qobject_cast<QTabWidget*>(pages->parentWidget()) : nullptr;
  return tabs != nullptr ? withoutMnemonics(tabs->tabText(tabs->indexOf(&page))) : QString();
}

QString withoutPlaceholder(QString title) {
  return title.remove(QStringLiteral("[*]")).trimmed();
}

class ScreenController final : public ViewController {
 public:
  explicit ScreenController(QWidget& widget) : widget_(&widget) {
    const bool named = isOfQtsOwnClass(widget) && !widget.objectName().isEmpty();
    className_ = named ? widget.objectName().toStdString() : classNameOf(widget);
  }
  [[nodiscard]] std::string className() const override { return className_; }
  [[nodiscard]] std::optional<std::string> title() const override {
    if (!widget_) return std::nullopt;
    for (const QString& title : {widget_->windowTitle(), tabTextOf(*widget_), widget_->window()->windowTitle()}) {
      if (const QString text = withoutPlaceholder(title); !text.isEmpty()) return text.toStdString();
    }
    return std::nullopt;
  }

 private:
  WeakWidget<QWidget> widget_;
  std::string className_;
};

/// Whether a change of `widget` can bring another screen to the front.
bool concernsScreens(const QWidget& widget) {
  return widget.isWindow() || qobject_cast<QStackedWidget*>(widget.parentWidget()) != nullptr;
}

}  // namespace

ScreenFollower::ScreenFollower() {
  soon_.setSingleShot(true);
  soon_.setInterval(0);
  connect(&soon_, &QTimer::timeout, this, [this] { report(); });
  qApp->installEventFilter(this);
  soon_.start();
}

std::shared_ptr<ViewController> ScreenFollower::takeShown() {
  shown_ = screenInFront(shown_);
  return shown_ ? std::make_shared<ScreenController>(*shown_) : nullptr;
}

bool ScreenFollower::eventFilter(QObject* watched, QEvent* event) {
  switch (event->type()) {
    case QEvent::Show:
    case QEvent::Hide:
    case QEvent::WindowActivate:
      if (watched->isWidgetType() && concernsScreens(*static_cast<QWidget*>(watched))) soon_.start();
      break;
    default: break;
  }
  return false;
}

void ScreenFollower::report() {
  QWidget* before = shown_;
  const auto screen = takeShown();
  if (screen == nullptr) {
    shown_ = before;  // every window is hidden; the one that comes back is the same screen
    return;
  }
  if (shown_ == before) return;
  Application::willShow(screen);
  Application::didShow(screen);
}

}  // namespace kelvo::qt
