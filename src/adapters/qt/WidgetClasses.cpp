#include "adapters/qt/WidgetClasses.h"

#include <cxxabi.h>

#include <QListView>
#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <typeinfo>
#include <utility>

namespace kelvo::qt {
namespace {

/// Qt's classes and the names under which the service's actions know them. "" hides a class that would otherwise get
/// the name of its base class. The nearest listed class of a widget counts, so a QCheckBox is a switch, not a button.
constexpr auto kCounterparts = std::to_array<std::pair<std::string_view, std::string_view>>({
    {"QCheckBox", "UISwitch"},
    {"QAbstractButton", "UIButton"},
    {"QLabel", "UILabel"},
    {"QLineEdit", "UITextField"},
    {"QTextEdit", "UITextView"},
    {"QPlainTextEdit", "UITextView"},
    {"QCalendarWidget", "UIDatePicker"},
    {"QDateTimeEdit", "UIDatePicker"},
    {"QAbstractSpinBox", "UIStepper"},
    {"QScrollBar", ""},
    {"QAbstractSlider", "UISlider"},
    {"QProgressBar", "UIProgressView"},
    {"QComboBox", "UIPickerView"},
    {"QTabBar", "UITabBar"},
    {"QToolBar", "UIToolbar"},
    {"QMenuBar", "UINavigationBar"},
    {"QHeaderView", ""},
    {"QListView", "UITableView"},
    {"QAbstractItemView", "UITableView"},
    {"QDialogButtonBox", "UIStackView"},
});

/// Returns the counterpart of `widget` by `className`, one of its listed classes. "" if it has none.
std::string_view counterpartOf(const QWidget& widget, std::string_view className) {
  const auto* list = qobject_cast<const QListView*>(&widget);
  if (className == "QListView" && list != nullptr && list->viewMode() == QListView::IconMode) return "UICollectionView";
  const auto* found = std::find_if(kCounterparts.begin(), kCounterparts.end(),
                                   [&](const auto& entry) { return entry.first == className; });
  return found == kCounterparts.end() ? std::string_view() : found->second;
}

bool isListed(std::string_view className) {
  return std::any_of(kCounterparts.begin(), kCounterparts.end(),
                     [&](const auto& entry) { return entry.first == className; });
}

/// Returns "Page" for "shop::Page<int>".
std::string withoutNamespace(std::string_view name) {
  name = name.substr(0, name.find('<'));
  const auto colon = name.rfind(':');
  return std::string(colon == std::string_view::npos ? name : name.substr(colon + 1));
}

/// Returns the widget's C++ class. QMetaObject alone does not know classes without Q_OBJECT.
std::string fullNameOf(const QWidget& widget) {
  const char* mangled = typeid(widget).name();
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> name(abi::__cxa_demangle(mangled, nullptr, nullptr, &status), std::free);
  return status == 0 ? name.get() : widget.metaObject()->className();
}

/// Returns whether a class `name`, with its namespace, belongs to Qt.
bool isNameOfQt(std::string_view name) {
  return name.size() > 1 && name[0] == 'Q' && name[1] >= 'A' && name[1] <= 'Z' && name.find(':') == name.npos;
}

}  // namespace

std::string classNameOf(const QWidget& widget) {
  return withoutNamespace(fullNameOf(widget));
}

std::vector<std::string> superclassNamesOf(const QWidget& widget) {
  const auto own = classNameOf(widget);
  std::vector<std::string> names;
  bool found = false;
  for (const QMetaObject* level = widget.metaObject(); level != nullptr; level = level->superClass()) {
    const auto name = withoutNamespace(level->className());
    if (name != own) names.push_back(name);
    if (found || !isListed(name)) continue;
    found = true;
    if (const auto counterpart = counterpartOf(widget, name); !counterpart.empty()) names.emplace_back(counterpart);
  }
  return names;
}

std::string nearestClassOfQt(const QWidget& widget) {
  const QMetaObject* level = widget.metaObject();
  while (!isNameOfQt(level->className())) level = level->superClass();  // at the end there is QObject
  return level->className();
}

bool isOfQtsOwnClass(const QWidget& widget) {
  return isNameOfQt(fullNameOf(widget));
}

}  // namespace kelvo::qt
