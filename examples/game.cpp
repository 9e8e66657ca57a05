// A game that draws its own interface, without a toolkit, into a block of memory. It shows how such a host
//
// 1. lets the library use the game's main loop (Application::setMainLoop),
// 2. reports its screens (Application::willShow and didShow),
// 3. describes its widgets (Application::setViewTree), so that the service's actions can point at its buttons.
//
// Start `kelvo-collector` in one terminal, and this program in another:
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

// The game's own model of its interface. The library knows nothing about it.

struct Widget {
  const char* kind;  // "GameLabel" or "GameButton"
  const char* text;
  int x, y, width;  // in characters
};

struct Scene {
  const char* name;
  const char* caption;
  std::vector<Widget> widgets;
};

// The view tree: small classes that show the model to the library. The library calls them on the game's main loop only,
// and only while it looks something up.

constexpr int kColumns = 40;
constexpr int kRows = 8;
constexpr double kPointsPerCharacter = 8;

/// One label or button.
class WidgetView : public kelvo::View {
 public:
  explicit WidgetView(const Widget& widget) : widget_(widget) {}
  std::string className() const override { return widget_.kind; }
  // Kelvo knows standard classes such as "UIButton". A view that derives from one of them can be found by path.
  std::vector<std::string> superclassNames() const override {
    return {className() == "GameButton" ? "UIButton" : "UILabel"};
  }
  kelvo::Rect frame() const override {
    return {widget_.x * kPointsPerCharacter, widget_.y * kPointsPerCharacter, widget_.width * kPointsPerCharacter,
            kPointsPerCharacter};
  }

 private:
  Widget widget_;
};

/// One screen. Its class name names the screen in the events; the title is for people.
class SceneController : public kelvo::ViewController {
 public:
  explicit SceneController(const Scene& scene) : scene_(scene) {}
  std::string className() const override { return scene_.name; }
  std::optional<std::string> title() const override { return scene_.caption; }
  const Scene& scene() const { return scene_; }

 private:
  const Scene& scene_;
};

/// The game's only window, with the widgets of the scene that it shows.
class GameWindow : public kelvo::Window {
 public:
  explicit GameWindow(std::shared_ptr<SceneController> shown) : shown_(std::move(shown)) {}
  std::string className() const override { return "GameWindow"; }
  kelvo::Rect frame() const override { return {0, 0, kColumns * kPointsPerCharacter, kRows * kPointsPerCharacter}; }
  bool isKey() const override { return true; }  // it has the keyboard's input
  std::shared_ptr<kelvo::ViewController> rootViewController() const override { return shown_; }
  std::vector<std::shared_ptr<kelvo::View>> subviews() const override {
    std::vector<std::shared_ptr<kelvo::View>> views;
    for (const Widget& widget : shown_->scene().widgets) views.push_back(std::make_shared<WidgetView>(widget));
    return views;
  }

 private:
  std::shared_ptr<SceneController> shown_;
};

/// The entry point: the library asks it for the windows. The game changes `shown` whenever it shows another scene.
class GameTree : public kelvo::ViewTree {
 public:
  std::shared_ptr<SceneController> shown;
  std::vector<std::shared_ptr<kelvo::Window>> windows() override { return {std::make_shared<GameWindow>(shown)}; }
};

// The game.

const Scene kMenu{"MenuScene", "Main menu", {{"GameLabel", "* ROCKS *", 15, 1, 9}, {"GameButton", "Play", 10, 4, 6}}};
const Scene kLevel{"LevelScene", "Level 1", {{"GameLabel", "Score 0", 1, 0, 8}, {"GameButton", "Pause", 33, 0, 6}}};
const Scene kShop{"ShopScene", "Shop", {{"GameLabel", "100 coins", 1, 0, 10}, {"GameButton", "Buy a ship", 1, 3, 12}}};

/// Draws frames, and runs the library's tasks between them, all on the thread that constructs it.
class Game {
 public:
  Game() {
    // The first function runs a task on the game's thread later; the second returns whether this is the game's thread.
    kelvo::Application::setMainLoop(
        [this](std::function<void()> task) { post(std::move(task)); },
        [thread = std::this_thread::get_id()] { return std::this_thread::get_id() == thread; });
    tree_->shown = std::make_shared<SceneController>(kMenu);
    kelvo::Application::setViewTree(tree_);
  }

  /// Shows another scene. The library records the time spent on each.
  void show(const Scene& scene) {
    const auto next = std::make_shared<SceneController>(scene);
    kelvo::Application::willShow(next);
    tree_->shown = next;
    kelvo::Application::didShow(next);
  }

  /// Runs the main loop for `duration`, and then prints the last frame.
  void play(std::chrono::milliseconds duration) {
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end) {
      draw();
      for (const auto& task : takeTasks()) task();
      std::this_thread::sleep_for(kFrame);
    }
    std::printf("%s\n", tree_->shown->scene().caption);
    for (const auto& line : picture_) std::printf("|%.*s|\n", kColumns, line.data());
  }

 private:
  static constexpr std::chrono::milliseconds kFrame{16};

  void draw() {
    for (auto& line : picture_) line.fill(' ');
    for (const Widget& widget : tree_->shown->scene().widgets) {
      const std::string text = widget.text;
      std::copy(text.begin(), text.end(), picture_.at(static_cast<std::size_t>(widget.y)).begin() + widget.x);
    }
  }

  /// Called by the library, on any thread.
  void post(std::function<void()> task) {
    const std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }

  std::vector<std::function<void()>> takeTasks() {
    const std::lock_guard lock(mutex_);
    return std::exchange(tasks_, {});
  }

  std::shared_ptr<GameTree> tree_ = std::make_shared<GameTree>();
  std::array<std::array<char, kColumns>, kRows> picture_{};
  std::mutex mutex_;
  std::vector<std::function<void()>> tasks_;  // guarded by mutex_
};

}  // namespace

int main() {
  // Never destroyed, because the library may post tasks to it until the process ends.
  static Game& game = *std::make_unique<Game>().release();
  kelvo::KelvoSDK::initializeKelvoWithID("rocks");
  kelvo::Application::didBecomeActive();
  game.play(std::chrono::milliseconds(1200));

  game.show(kLevel);
  kelvo::KelvoSDK::logAppEventWithName("Level started", {{"level", 1}});
  game.play(std::chrono::milliseconds(600));

  game.show(kShop);
  kelvo::KelvoSDK::logAppEventWithName("Bought", {{"what", "ship"}, {"coins", 80}});
  game.play(std::chrono::milliseconds(600));

  // The player leaves: the library sends the events. This is the only call that blocks. If the service does not answer
  // in time, the events are stored, and the next launch sends them.
  kelvo::Application::willResignActive();
  kelvo::KelvoSDK::flushAndWait(std::chrono::seconds(3));
}
