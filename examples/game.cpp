// A game that draws its own interface, without a toolkit: its picture is a block of memory. It hands over its main loop
// and, in the fifty lines of the first part, its view tree, so that its screens are followed by themselves and actions
// of the service can point at its buttons. Run it against `kelvo-collector`:
//   KELVO_SERVER_BASE_URL=http://127.0.0.1:8288 game

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kelvo/KelvoSDK.h"

namespace {

struct Widget {
  const char* kind;  // what the game calls it
  const char* text;
  int x, y, width;  // in characters
};

struct Scene {
  const char* name;
  const char* caption;
  std::vector<Widget> widgets;
};

// --- The view tree, from here

constexpr double kPointsPerCharacter = 8;

class WidgetView : public kelvo::View {
 public:
  explicit WidgetView(const Widget& widget) : widget_(widget) {}
  std::string className() const override { return widget_.kind; }
  std::vector<std::string> superclassNames() const override {  // the classes that searches look for
    return {className() == "GameButton" ? "UIButton" : "UILabel"};
  }
  kelvo::Rect frame() const override {
    return {widget_.x * kPointsPerCharacter, widget_.y * kPointsPerCharacter, widget_.width * kPointsPerCharacter,
            kPointsPerCharacter};
  }

 private:
  Widget widget_;
};

class SceneController : public kelvo::ViewController {
 public:
  explicit SceneController(const Scene& scene) : scene_(scene) {}
  std::string className() const override { return scene_.name; }
  std::optional<std::string> title() const override { return scene_.caption; }
  const Scene& scene() const { return scene_; }

 private:
  const Scene& scene_;
};

class GameWindow : public kelvo::Window {
 public:
  explicit GameWindow(std::shared_ptr<SceneController> shown) : shown_(std::move(shown)) {}
  std::string className() const override { return "GameWindow"; }
  kelvo::Rect frame() const override { return {0, 0, 40 * kPointsPerCharacter, 8 * kPointsPerCharacter}; }
  bool isKey() const override { return true; }
  std::shared_ptr<kelvo::ViewController> rootViewController() const override { return shown_; }
  std::vector<std::shared_ptr<kelvo::View>> subviews() const override {
    std::vector<std::shared_ptr<kelvo::View>> views;
    for (const Widget& widget : shown_->scene().widgets) views.push_back(std::make_shared<WidgetView>(widget));
    return views;
  }

 private:
  std::shared_ptr<SceneController> shown_;
};

class GameTree : public kelvo::ViewTree {
 public:
  std::shared_ptr<SceneController> shown;
  std::vector<std::shared_ptr<kelvo::Window>> windows() override { return {std::make_shared<GameWindow>(shown)}; }
};

// --- to here

const Scene kMenu{"MenuScene", "Main menu", {{"GameLabel", "* ROCKS *", 15, 1, 9}, {"GameButton", "Play", 10, 4, 6}}};
const Scene kLevel{"LevelScene", "Level 1", {{"GameLabel", "Score 0", 1, 0, 8}, {"GameButton", "Pause", 33, 0, 6}}};
const Scene kShop{"ShopScene", "Shop", {{"GameLabel", "100 coins", 1, 0, 10}, {"GameButton", "Buy a ship", 1, 3, 12}}};

/// Runs a frame and whatever was posted, all on the game's one thread.
class Game {
 public:
  Game() {
    kelvo::Application::setMainLoop(
        [this](std::function<void()> task) { post(std::move(task)); },
        [thread = std::this_thread::get_id()] { return std::this_thread::get_id() == thread; });
    tree_->shown = std::make_shared<SceneController>(kMenu);
    kelvo::Application::setViewTree(tree_);
  }

  void show(const Scene& scene) {
    const auto next = std::make_shared<SceneController>(scene);
    kelvo::Application::willShow(next);
    tree_->shown = next;
    kelvo::Application::didShow(next);
  }

  void play(std::chrono::milliseconds duration) {
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end) {
      draw();
      for (const auto& task : taken()) task();
      std::this_thread::sleep_for(std::chrono::milliseconds(16));
    }
    std::printf("%s\n", tree_->shown->scene().caption);
    for (const auto& line : picture_) std::printf("|%.40s|\n", line.data());
  }

 private:
  void draw() {
    for (auto& line : picture_) line.fill(' ');
    for (const Widget& widget : tree_->shown->scene().widgets) {
      const std::string text = widget.text;
      std::copy(text.begin(), text.end(), picture_.at(static_cast<std::size_t>(widget.y)).begin() + widget.x);
    }
  }

  void post(std::function<void()> task) {
    const std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }

  std::vector<std::function<void()>> taken() {
    const std::lock_guard lock(mutex_);
    return std::exchange(tasks_, {});
  }

  std::shared_ptr<GameTree> tree_ = std::make_shared<GameTree>();
  std::array<std::array<char, 40>, 8> picture_{};
  std::mutex mutex_;
  std::vector<std::function<void()>> tasks_;
};

}  // namespace

int main() {
  static Game& game = *std::make_unique<Game>().release();  // the library may post to it until the process is gone
  kelvo::KelvoSDK::initializeKelvoWithID("rocks");
  kelvo::Application::didBecomeActive();
  game.play(std::chrono::milliseconds(1200));

  game.show(kLevel);
  kelvo::KelvoSDK::logAppEventWithName("Level started", {{"level", 1}});
  game.play(std::chrono::milliseconds(600));

  game.show(kShop);
  kelvo::KelvoSDK::logAppEventWithName("Bought", {{"what", "ship"}, {"coins", 80}});
  game.play(std::chrono::milliseconds(600));

  kelvo::Application::willResignActive();
  game.play(std::chrono::milliseconds(600));
}
