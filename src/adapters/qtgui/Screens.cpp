#include "adapters/qtgui/Screens.h"

#include <utility>

#include "kelvo/Application.h"

namespace kelvo::qt {
namespace {

/// Returns the name by which the library compares screens.
std::string nameOf(const ViewController& screen) {
  const std::string name = screen.className();
  return name.substr(name.rfind('.') + 1);
}

}  // namespace

void Screens::add(std::unique_ptr<Toolkit> toolkit) {
  toolkits_.insert(toolkits_.begin(), std::move(toolkit));
}

std::vector<std::shared_ptr<Window>> Screens::windows() const {
  std::vector<std::shared_ptr<Window>> all;
  for (const auto& toolkit : toolkits_) {
    for (auto& window : toolkit->windows()) all.push_back(std::move(window));
  }
  return all;
}

std::optional<std::shared_ptr<ViewController>> Screens::screenInside(const QWindow& window) const {
  for (const auto& toolkit : toolkits_) {
    if (auto screen = toolkit->screenInside(window)) return screen;
  }
  return std::nullopt;
}

std::vector<std::shared_ptr<View>> Screens::viewsInside(const QWindow& window, const QRect& place) const {
  std::vector<std::shared_ptr<View>> all;
  for (const auto& toolkit : toolkits_) {
    for (auto& view : toolkit->viewsInside(window, place)) all.push_back(std::move(view));
  }
  return all;
}

std::shared_ptr<ViewController> Screens::inFront() const {
  for (const auto& toolkit : toolkits_) {
    if (auto screen = toolkit->screenInFront()) return screen;
  }
  return nullptr;
}

std::shared_ptr<ViewController> Screens::take() {
  auto screen = inFront();
  reported_ = screen != nullptr ? nameOf(*screen) : std::string();
  return screen;
}

void Screens::report() {
  const auto screen = inFront();
  // While all windows are hidden, the screen reported last stays: if it returns, it is not reported again.
  if (screen == nullptr || nameOf(*screen) == reported_) return;
  reported_ = nameOf(*screen);
  Application::willShow(screen);
  Application::didShow(screen);
}

}  // namespace kelvo::qt
