#include "adapters/quick/ItemClasses.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace kelvo::qt {
namespace {

/// Qt Quick's types and the names under which the service's actions know them. The nearest listed type of an item
/// counts, so a Switch is a switch, not a button.
constexpr auto kCounterparts = std::to_array<std::pair<std::string_view, std::string_view>>({
    {"Switch", "UISwitch"},
    {"CheckBox", "UISwitch"},
    {"AbstractButton", "UIButton"},
    {"Text", "UILabel"},
    {"TextInput", "UITextField"},
    {"TextEdit", "UITextView"},
    {"SpinBox", "UIStepper"},
    {"Slider", "UISlider"},
    {"ProgressBar", "UIProgressView"},
    {"ComboBox", "UIPickerView"},
    {"Tumbler", "UIPickerView"},
    {"PageIndicator", "UIPageControl"},
    {"TabBar", "UITabBar"},
    {"ToolBar", "UIToolbar"},
    {"MenuBar", "UINavigationBar"},
    {"DialogButtonBox", "UIStackView"},
    {"GridView", "UICollectionView"},
    {"ItemView", "UITableView"},
    {"TableView", "UITableView"},
});

// Qt's C++ class names have these parts, and the names of its QML types lack them: the class of a Text is "QQuickText",
// that of a Window "QQuickWindowQmlImpl".
constexpr std::string_view kOfQt = "QQuick";
constexpr std::string_view kOfWindow = "QmlImpl";

std::string_view counterpartOf(std::string_view type) {
  const auto* found =
      std::find_if(kCounterparts.begin(), kCounterparts.end(), [&](const auto& entry) { return entry.first == type; });
  return found == kCounterparts.end() ? std::string_view() : found->second;
}

}  // namespace

std::string typeNameOf(const QMetaObject& type) {
  std::string_view name = type.className();
  // The engine's own names: "BuyButton_QMLTYPE_5" for a file, "QQuickText_QML_14" for a text with further properties.
  name = name.substr(0, std::min(name.find("_QMLTYPE_"), name.find("_QML_")));
  if (const auto colon = name.rfind(':'); colon != std::string_view::npos) name.remove_prefix(colon + 1);
  if (name.starts_with(kOfQt)) name.remove_prefix(kOfQt.size());
  if (name.ends_with(kOfWindow)) name.remove_suffix(kOfWindow.size());
  return std::string(name);
}

std::vector<std::string> superclassNamesOf(const QMetaObject& type) {
  std::vector<std::string> names;
  std::string_view counterpart;
  std::string before = typeNameOf(type);
  for (const QMetaObject* level = &type; level != nullptr; level = level->superClass()) {
    const std::string name = typeNameOf(*level);
    if (std::exchange(before, name) != name) names.push_back(name);
    if (!counterpart.empty()) continue;
    counterpart = counterpartOf(name);
    if (!counterpart.empty()) names.emplace_back(counterpart);
  }
  return names;
}

}  // namespace kelvo::qt
