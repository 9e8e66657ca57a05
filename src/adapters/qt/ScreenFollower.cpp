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

/// Returns whether `window` can be a screen. Tools, menus, tooltips and the like are not.
bool isScreenWindow(const QWidget& window) {
  const auto type = window.windowType();
  return window.isVisible() && !window.isMinimized() &&
         (type == Qt::Window || type == Qt::Dialog || type == Qt::Sheet || type == Qt::Widget);
}

/// Returns the window that owns `window` (a dialog's, for example), nullptr if there is none.
QWidget* ownerOf(const QWidget& window) {
  return window.parentWidget() != nullptr ? window.parentWidget()->window() : nullptr;
}

/// Returns whether `window` is `owner`, or `owner` owns it at any depth.
bool isOwnedBy(const QWidget* window, const QWidget& owner) {
  while (window != nullptr && window != &owner) window = ownerOf(*window);
  return window != nullptr;
}

/// Returns whether a modal dialog blocks `window`.
bool isBlocked(const QWidget& window) {
  const QWidget* dialog = QApplication::activeModalWidget();
  if (dialog == nullptr || isOwnedBy(&window, *dialog)) return false;
  return dialog->windowModality() == Qt::ApplicationModal || isOwnedBy(dialog, window);
}

int areaOf(const QWidget& widget) {
  return widget.width() * widget.height();
}

/// Returns the window that the user works in, nullptr if none is visible. `before` is the last one known; it stays
/// while no window is active (the application is in the background, or the window system has not activated one yet).
QWidget* windowInFront(QWidget* before) {
  for (QWidget* window : {QApplication::activeWindow(), before, QApplication::activeModalWidget()}) {
    while (window != nullptr && !isScreenWindow(*window)) window = ownerOf(*window);
    if (window != nullptr && !isBlocked(*window)) return window;
  }
  QWidget* largest = nullptr;  // topLevelWidgets has no defined order
  for (QWidget* window : QApplication::topLevelWidgets()) {
    if (isScreenWindow(*window) && (largest == nullptr || areaOf(*window) > areaOf(*largest))) largest = window;
  }
  return largest;
}

/// Returns the current page of the largest stack of pages in `widget`, at any depth. Returns `widget` if it has no
/// pages.
QWidget* pageInFront(QWidget* widget) {
  if (auto* pages = qobject_cast<QStackedWidget*>(widget)) {
    return pages->currentWidget() == nullptr ? widget : pageInFront(pages->currentWidget());
  }
  QStackedWidget* largest = nullptr;
  for (QStackedWidget* pages : widget->findChildren<QStackedWidget*>()) {
    if (!pages->isVisibleTo(widget) || pages->currentWidget() == nullptr) continue;
    // The recursion below finds stacks inside the pages of another stack.
    if (largest != nullptr && (largest->isAncestorOf(pages) || areaOf(*pages) <= areaOf(*largest))) continue;
    largest = pages;
  }
  return largest == nullptr ? widget : pageInFront(largest->currentWidget());
}

QWidget* screenInFront(const QWidget* before) {
  QWidget* window = windowInFront(before != nullptr ? before->window() : nullptr);
  return window == nullptr ? nullptr : pageInFront(window);
}

/// Returns "Fish & Chips" for "&Fish && Chips".
QString withoutMnemonics(const QString& text) {
  QString plain;
  for (qsizetype i = 0; i < text.size(); ++i) {
    if (text[i] == u'&' && ++i == text.size()) break;
    plain += text[i];
  }
  return plain;
}

/// Returns the text of the tab that shows `page`, empty if `page` is not in a tab widget.
QString tabTextOf(QWidget& page) {
  const auto* pages = qobject_cast<QStackedWidget*>(page.parentWidget());
  const auto* tabs = pages != nullptr ? qobject_cast<QTabWidget*>(pages->parentWidget()) : nullptr;
  return tabs != nullptr ? withoutMnemonics(tabs->tabText(tabs->indexOf(&page))) : QString();
}

/// Removes Qt's placeholder for the mark of an unsaved document.
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

/// Returns whether a change of `widget` can change the screen in front.
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
    shown_ = before;  // all windows are hidden; if the same screen returns, it is not reported again
    return;
  }
  if (shown_ == before) return;
  Application::willShow(screen);
  Application::didShow(screen);
}

}  // namespace kelvo::qt
