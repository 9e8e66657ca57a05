#include "adapters/quick/ItemToolkit.h"

#include <QGuiApplication>
#include <QQuickRenderControl>
#include <QQuickWindow>
#include <QVariant>
#include <algorithm>
#include <utility>

#include "adapters/qtgui/WeakObject.h"
#include "adapters/quick/ItemNodes.h"
#include "adapters/quick/ItemPlace.h"

namespace kelvo::qt {
namespace {

/// The toolkit that was added for the application, nullptr if none is. The base deletes it with the application object.
ItemToolkit* added = nullptr;

/// Returns the item that stands for `marked`: of a window or a popup, the one with its content. nullptr if it has none.
QQuickItem* itemOf(QObject* marked) {
  if (auto* item = qobject_cast<QQuickItem*>(marked)) return item;
  return marked != nullptr ? marked->property("contentItem").value<QQuickItem*>() : nullptr;
}

/// Returns the window in which the user sees `item`: that of its scene, or the one around the QQuickWidget that draws
/// the scene. nullptr if the scene is hidden.
QWindow* windowOf(const QQuickItem& item) {
  QQuickWindow* scene = item.window();
  if (scene == nullptr || scene->visibility() == QWindow::Hidden)
    return nullptr;  // in a QQuickWidget, isVisible is false
  QWindow* around = QQuickRenderControl::renderWindowFor(scene);
  return around != nullptr ? around : scene;
}

/// Returns the windows whose screens can be in front, the first one first.
std::vector<QWindow*> windowsInFront() {
  std::vector<QWindow*> windows;
  for (QWindow* window = QGuiApplication::focusWindow(); window != nullptr;) {
    windows.push_back(window);
    window = window->parent(QWindow::IncludeTransients);
  }
  if (!windows.empty()) return windows;
  const auto all = QGuiApplication::topLevelWindows();
  return {all.begin(), all.end()};
}

/// Returns whether the user can see the screen of `window`. A window of widgets is the concern of their toolkit.
bool isShown(const QWindow& window) {
  return qobject_cast<const QQuickWindow*>(&window) != nullptr && window.isVisible() &&
         window.visibility() != QWindow::Minimized;
}

class ItemScreen final : public ViewController {
 public:
  ItemScreen(QObject& object, const QString& name) : object_(&object), name_(name.toStdString()) {}
  [[nodiscard]] std::string className() const override { return name_; }
  [[nodiscard]] std::optional<std::string> title() const override {
    const QString title = object_ ? object_->property("title").toString() : QString();
    return title.isEmpty() ? std::nullopt : std::optional(title.toStdString());
  }

 private:
  WeakObject<QObject> object_;
  std::string name_;
};

}  // namespace

ItemToolkit::ItemToolkit() {
  const auto* application = qobject_cast<QGuiApplication*>(QCoreApplication::instance());
  if (application != nullptr) connect(application, &QGuiApplication::focusWindowChanged, this, &ItemToolkit::lookAgain);
}

ItemToolkit::~ItemToolkit() {
  added = nullptr;
}

ItemToolkit& ItemToolkit::ofApplication() {
  if (added == nullptr) {
    auto toolkit = std::make_unique<ItemToolkit>();
    added = toolkit.get();
    addToolkit(std::move(toolkit));
  }
  return *added;
}

void ItemToolkit::mark(QObject& object, const QString& name) {
  std::erase_if(marks_, [&](const Mark& mark) { return mark.object == nullptr || mark.object == &object; });
  if (!name.isEmpty()) marks_.push_back({&object, name});
  watch(&object, SIGNAL(destroyed()));
  lookAgain();
}

void ItemToolkit::watch(QObject* object, const char* signal) {
  if (object->metaObject()->indexOfSignal(signal + 1) >= 0) {  // the first character is a mark of the macro SIGNAL
    connect(object, signal, this, SLOT(lookAgain()), Qt::UniqueConnection);
  }
}

void ItemToolkit::watchAround(QQuickItem& item) {
  watch(&item, SIGNAL(visibleChanged()));
  watch(&item, SIGNAL(parentChanged(QQuickItem*)));
  watch(&item, SIGNAL(windowChanged(QQuickWindow*)));
  watch(&item, SIGNAL(itemChanged()));  // a Loader's
  if (QQuickWindow* window = item.window()) watch(window, SIGNAL(visibilityChanged(QWindow::Visibility)));
  for (QQuickItem* container : containersOf(item)) {
    watch(container, SIGNAL(currentItemChanged()));
    watch(itemThatMoves(*container), SIGNAL(busyChanged()));
    watch(itemThatMoves(*container), SIGNAL(movingChanged()));
  }
}

const ItemToolkit::Mark* ItemToolkit::markInFront(const QWindow& window) const {
  const Mark* front = nullptr;
  for (const Mark& mark : marks_) {
    auto* item = itemOf(mark.object);
    if (item == nullptr || windowOf(*item) != &window || !isInCurrentItems(*item)) continue;
    if (front == nullptr || isDrawnAfter(*item, *itemOf(front->object))) front = &mark;
  }
  return front;
}

void ItemToolkit::watchMarks() {
  for (const Mark& mark : marks_) {
    if (auto* item = itemOf(mark.object)) watchAround(*item);
  }
}

std::shared_ptr<ViewController> ItemToolkit::screenInFront() {
  watchMarks();
  for (const QWindow* window : windowsInFront()) {
    if (!isShown(*window)) continue;
    if (auto screen = screenInside(*window)) return *screen;
  }
  return nullptr;
}

std::optional<std::shared_ptr<ViewController>> ItemToolkit::screenInside(const QWindow& window) {
  watchMarks();
  const Mark* mark = markInFront(window);
  if (mark == nullptr) return std::nullopt;
  if (isMoving(*itemOf(mark->object))) return nullptr;
  return std::make_shared<ItemScreen>(*mark->object, mark->screen);
}

std::vector<std::shared_ptr<View>> ItemToolkit::viewsInside(const QWindow& window, const QRect& place) {
  return itemsInside(window, place);
}

std::vector<std::shared_ptr<Window>> ItemToolkit::windows() {
  return visibleItemWindows();
}

}  // namespace kelvo::qt
