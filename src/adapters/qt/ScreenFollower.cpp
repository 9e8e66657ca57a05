#include "adapters/qt/ScreenFollower.h"

#include <QApplication>
#include <QEvent>
#include <QStackedLayout>
#include <QStackedWidget>
#include <QTabBar>
#include <QTabWidget>
#include <QWindow>
#include <QWizard>
#include <string>

#include "adapters/qt/WidgetClasses.h"
#include "adapters/qt/WidgetTree.h"
#include "adapters/qtgui/WeakObject.h"
#include "kelvo/Qt.h"

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

/// Returns whether `widget` is, or is inside of, a dialog that Qt draws (to choose a file, to print). Its stacks are no
/// pages of the host's. A wizard is none of these: the host makes its pages.
bool isInDialogOfQt(const QWidget* widget) {
  for (; widget != nullptr; widget = widget->isWindow() ? nullptr : widget->parentWidget()) {
    const std::string nearest = nearestClassOfQt(*widget);
    if (widget->inherits("QDialog") && nearest != "QDialog" && nearest != "QWizard") return true;
  }
  return false;
}

/// Returns the current page of the largest stack of pages in `widget`, at any depth, or the current step of a wizard.
/// Returns `widget` if it has no pages.
QWidget* pageInFront(QWidget* widget) {
  if (const auto* wizard = qobject_cast<QWizard*>(widget)) {
    return wizard->currentPage() == nullptr ? widget : pageInFront(wizard->currentPage());
  }
  QWidget* largest = nullptr;
  for (const QStackedLayout* stack : widget->findChildren<QStackedLayout*>()) {  // a QStackedWidget has one, too
    QWidget* page = stack->currentWidget();
    if (page == nullptr || !page->isVisibleTo(widget) || page->window() != widget->window()) continue;
    if (isInDialogOfQt(page)) continue;
    // The recursion below finds stacks inside the pages of another stack.
    if (largest != nullptr && (largest->isAncestorOf(page) || areaOf(*page) <= areaOf(*largest))) continue;
    largest = page;
  }
  return largest == nullptr ? widget : pageInFront(largest);
}

/// Returns the stack in `layout`, at any depth, that has `page`. nullptr if there is none.
QStackedLayout* stackWith(QWidget& page, QLayout* layout) {
  if (auto* stack = qobject_cast<QStackedLayout*>(layout)) return stack->indexOf(&page) < 0 ? nullptr : stack;
  for (int i = 0; layout != nullptr && i < layout->count(); ++i) {
    if (auto* stack = stackWith(page, layout->itemAt(i)->layout())) return stack;
  }
  return nullptr;
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

/// Returns whether the object name of `widget` names its screen. That of a page does if its class is one of Qt's own.
/// That of a window does unless Qt has set it: each QFileDialog has the name of its class.
bool hasNameOfHost(const QWidget& widget) {
  const QString name = widget.objectName();
  if (name.isEmpty() || isOfQtsOwnClass(widget)) return !name.isEmpty();
  return widget.isWindow() && name.toStdString() != nearestClassOfQt(widget);
}

/// Returns the name by which the library knows the screen `widget`.
QString nameOf(const QWidget& widget);

/// Returns the name of a step of a wizard that has none of its own.
QString nameOfStep(const QWizardPage& step) {
  for (const QWidget* owner = step.parentWidget(); owner != nullptr; owner = owner->parentWidget()) {
    const auto* wizard = qobject_cast<const QWizard*>(owner);
    if (wizard == nullptr) continue;
    for (const int id : wizard->pageIds()) {
      if (wizard->page(id) == &step) return QStringLiteral("%1-%2").arg(nameOf(*wizard)).arg(id);
    }
  }
  return QStringLiteral("QWizardPage");
}

QString nameOf(const QWidget& widget) {
  if (const QString name = widget.property(kScreenProperty).toString(); !name.isEmpty()) return name;
  if (hasNameOfHost(widget)) return widget.objectName();
  const auto* step = qobject_cast<const QWizardPage*>(&widget);
  if (step != nullptr && isOfQtsOwnClass(widget)) return nameOfStep(*step);
  return QString::fromStdString(classNameOf(widget));
}

/// Returns the text above `page` in its tab widget or wizard, empty if it is in neither.
QString headingOf(QWidget& page) {
  const auto* step = qobject_cast<const QWizardPage*>(&page);
  return step != nullptr ? step->title() : tabTextOf(page);
}

class ScreenController final : public ViewController {
 public:
  explicit ScreenController(QWidget& widget) : widget_(&widget), className_(nameOf(widget).toStdString()) {}
  [[nodiscard]] std::string className() const override { return className_; }
  [[nodiscard]] std::optional<std::string> title() const override {
    if (!widget_) return std::nullopt;
    for (const QString& title : {widget_->windowTitle(), headingOf(*widget_), widget_->window()->windowTitle()}) {
      if (const QString text = withoutPlaceholder(title); !text.isEmpty()) return text.toStdString();
    }
    return std::nullopt;
  }

 private:
  WeakObject<QWidget> widget_;
  std::string className_;
};

/// Returns whether a change of `widget` can change the screen in front.
bool concernsScreens(QWidget& widget) {
  if (widget.isWindow() || qobject_cast<QWizardPage*>(&widget) != nullptr) return true;
  return widget.parentWidget() != nullptr && stackWith(widget, widget.parentWidget()->layout()) != nullptr;
}

}  // namespace

ScreenFollower::ScreenFollower() {
  qApp->installEventFilter(this);
}

std::vector<std::shared_ptr<Window>> ScreenFollower::windows() {
  return visibleWidgetWindows();
}

std::shared_ptr<ViewController> ScreenFollower::screenInFront() {
  QWidget* window = windowInFront(before_ != nullptr ? before_->window() : nullptr);
  if (window == nullptr) return nullptr;
  before_ = pageInFront(window);
  if (const QWindow* shown = window->windowHandle()) {
    if (auto inside = embeddedScreen(*shown)) return *inside;  // a page in QML, for example
  }
  return std::make_shared<ScreenController>(*before_);
}

bool ScreenFollower::eventFilter(QObject* watched, QEvent* event) {
  switch (event->type()) {
    case QEvent::Show:
    case QEvent::Hide:
    case QEvent::WindowActivate:
    case QEvent::ZOrderChange:  // a stack may show all pages, the current one above the others
      if (watched->isWidgetType() && concernsScreens(*static_cast<QWidget*>(watched))) screensMayHaveChanged();
      break;
    default: break;
  }
  return false;
}

void attach(QApplication& application) noexcept {
  if (attachApplication(application)) addToolkit(std::make_unique<ScreenFollower>());
}

}  // namespace kelvo::qt
