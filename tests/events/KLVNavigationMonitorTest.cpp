#include "events/KLVNavigationMonitor.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <thread>

#include "platform/Clock.h"
#include "platform/MainQueue.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "util/KLVTimer.h"

namespace kelvo::test {
namespace {

using namespace std::chrono_literals;

struct Controller final : ViewController {
  Controller(std::string itsName, std::optional<std::string> itsTitle, Kind itsKind = Kind::plain)
      : name(std::move(itsName)), text(std::move(itsTitle)), ofKind(itsKind) {}
  std::string className() const override { return name; }
  Kind kind() const override { return ofKind; }
  std::optional<std::string> title() const override {
    EXPECT_TRUE(MainQueue::isCurrent());
    if (text == "throws") throw std::runtime_error("no title");
    return text;
  }
  std::string name;
  std::optional<std::string> text;
  Kind ofKind;
};

struct TreeOf final : ViewTree {
  struct Shown final : Window {
    std::string className() const override { return "Window"; }
    Rect frame() const override { return {}; }
    bool isKey() const override { return true; }
    std::shared_ptr<ViewController> rootViewController() const override {
      return std::make_shared<Controller>("Front", "Door");
    }
  };
  std::vector<std::shared_ptr<Window>> windows() override { return {std::make_shared<Shown>()}; }
};

class NavigationMonitor : public testing::Test, public KLVNavigationMonitorDelegate {
 protected:
  using Kind = ViewController::Kind;
  NavigationMonitor() { begin(); }

  /// Replaces the monitor by a new one.
  void begin() {
    if (monitor != nullptr) monitor->stop();
    KLVTimer::sharedTimer().setSDKStartTime(Clock::now());
    monitor = std::make_shared<KLVNavigationMonitor>(*this);
    happened.clear();
    monitor->start();
    monitor->lookUpFirstScreen();
  }
  void registerIdentifer(const std::string& key, const std::shared_ptr<KLVEventListener>&) override {
    keys += key + " ";
  }
  void whenDelivered(std::function<void()> task) override { task(); }
  /// Records "~Detail" for an announced screen, and "Detail 15" for a screen shown for 15 seconds. A title that differs
  /// from the screen's name follows it in brackets.
  void dispatchEvent(const std::shared_ptr<KLVEvent>& event) override {
    const Dictionary info = event->additionalInfo();
    happened += event->eventType() == KLVEventType::ceNavigation ? "~" : "";
    happened += event->identifier();
    if (!info["name"].isNull() && info["name"] != Value(event->identifier())) {
      happened += "(" + description(info["name"]) + ")";
    }
    happened += (info.contains("duration") ? " " + description(info["duration"]) : "") + "; ";
  }

  static void post(std::string_view signal, std::shared_ptr<ViewController> next) {
    NotificationCenter::defaultCenter().post(signal, Screen(std::move(next)));
  }
  /// Plays the words of a script: "will:Class/Title" and "did:Class/Title" (a notification with a controller),
  /// "named:Class/Title" (a notification without one), "navigation:Class", "top:Class" (the first screen), "log:Name",
  /// "background", "foreground", "+5" (five seconds pass) and "-5" (the clock is set back).
  void play(const std::string& script) {
    std::istringstream words(script);
    for (std::string word; words >> word;) {
      if (word[0] == '+' || word[0] == '-') Clock::advance(std::chrono::seconds(std::stoi(word)));
      const auto colon = word.find(':');
      const std::string step = word.substr(0, colon);
      const std::string whole = colon != std::string::npos ? word.substr(colon + 1) : "";
      const std::string name = whole.substr(0, whole.find('/'));
      std::optional<std::string> title;
      if (whole.size() > name.size()) title = whole.substr(name.size() + 1);
      const auto next =
          std::make_shared<Controller>(name, title, step == "navigation" ? Kind::navigation : Kind::plain);
      if (step == "will" || step == "navigation") post(kWillShowViewController, next);
      if (step == "did" || step == "navigation") post(kDidShowViewController, next);
      if (step == "named") NotificationCenter::defaultCenter().post(kDidShowViewController, Screen(name, title));
      if (step == "top") monitor->handleFirstScreen(Screen(next));
      if (step == "log") monitor->logScreenWithName(name);
      if (step == "background") system(KLVSystemEvent::SubType::background);
      if (step == "foreground") system(KLVSystemEvent::SubType::foreground);
      ASSERT_TRUE(monitor->waitUntilDispatched(20s)) << word;
    }
  }
  void system(KLVSystemEvent::SubType type) {
    monitor->onEvent(std::make_shared<KLVSystemEvent>(KLVEventType::system, type));
  }

  std::string keys, happened;
  std::shared_ptr<KLVNavigationMonitor> monitor;
};

TEST_F(NavigationMonitor, ReportsScreensAndTheTimeSpentOnEach) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"dispatched when the next one appears", "+10 did:A +15 did:B +5 did:C", "A 15; B 5; "},
      {"module prefix, titles", "did:Shop.Home/Start +2 did:Shop.ui.Item/ named:Cart/Basket did:X",
       "Home(Start) 2; Item() 0; Cart(Basket) 0; "},
      {"announced once", "will:A will:A did:A will:B will:A", "~A; ~B; ~A; "},
      {"shown twice in a row", "did:A +3 did:A/Other +4 did:B", "A 7; "},
      {"a navigation is not a screen", "did:A navigation:N +1 did:B", "A 1; "},
      {"a title that cannot be read", "did:A/throws +1 did:B", "A 1; "},
      {"first screen", "top:A/Title +3 top:A +2 did:B top:C did:D", "A(Title) 5; B 0; "},
      {"first screen after a change", "did:A did:B top:C +1 did:D", "A 0; B 1; "},
      {"logged before any other", "log:Login +4 log:Help +1 did:A", "~Login; ~Help; Login 4; Help 1; "},
      {"logged inside a screen", "will:A did:A +2 log:Tab +3 did:B", "~A; ~A(Tab); A 2; A(Tab) 3; "},
      {"logged inside one announced", "did:A will:B +1 log:Tab did:A", "~B; ~B(Tab); A 1; B(Tab) 0; "},
      {"logged name is the current one", "log:A did:A will:A +1 did:B", "~A; A 1; "},
      {"first screen after one shown", "did:A +2 top:B +1 did:C", "A 2; B 1; "},
      {"background", "background did:A +10 background", "A 10; "},
      {"a second background", "did:A +10 background +3 background +4 foreground +1 background", "A 10; A 1; "},
      {"a change in the background", "did:A +10 background +3 did:B +4 background", "A 10; B 4; "},
      {"a clock that was set back", "did:A -5 did:B", "A 0; "},
      {"back again", "did:A/T +10 background +100 foreground +7 did:B", "A(T) 10; A(T) 7; "},
      {"back to a logged one", "did:A log:Tab background +9 foreground +1 background",
       "~A(Tab); A 0; A(Tab) 0; A(Tab) 1; "},
      {"back without a screen", "foreground did:A +1 background", "A 1; "}};
  for (const auto& [name, script, expected] : cases) {
    begin();
    play(script);
    EXPECT_EQ(happened, expected) << name << ": " << script;
  }
}

TEST_F(NavigationMonitor, LogsARepeatedScreenAndIgnoresANotificationWithoutOne) {
  const LogCapture log;
  play("did:A did:A");
  NotificationCenter::defaultCenter().post(kDidShowViewController);  // without a screen
  play("background");
  EXPECT_EQ(log.count("<KLV ERROR> Ignoring screen notification with title: A "), 1u);
  EXPECT_EQ(happened, "A 0; ");
}

TEST_F(NavigationMonitor, LooksUpTheFirstScreenOnceThereIsAViewTreeAndEndsWithItsSubscriptions) {
  const auto lookedUp = [this] {
    waitForMainLoop();
    play("background");
  };
  EXPECT_EQ(keys, "0___BACKGROUND 0___FOREGROUND ");
  lookedUp();
  EXPECT_EQ(happened, "");
  HostInterface::setViewTree(std::make_shared<TreeOf>());
  for (int i = 0; i < 2; ++i) {
    NotificationCenter::defaultCenter().post(kViewTreeDidChange);
    lookedUp();
  }
  EXPECT_EQ(happened, "Front(Door) 0; ") << "BACKGROUND twice";
  begin();  // now there is a tree before the start
  lookedUp();
  EXPECT_EQ(happened, "Front(Door) 0; ");
  monitor->stop();
  play("foreground did:B will:B background");
  EXPECT_EQ(happened, "Front(Door) 0; Front(Door) 0; ");
}

/// A host's busy main loop: it keeps its tasks, and the test runs them.
class BusyLoop {
 public:
  BusyLoop() {
    MainQueue::handOver([this](MainQueue::Task task) { tasks.push_back(std::move(task)); },
                        [thread = std::this_thread::get_id()] { return std::this_thread::get_id() == thread; });
  }
  ~BusyLoop() { MainQueue::handOver(nullptr, nullptr); }
  std::vector<MainQueue::Task> tasks;  // the monitor's queue adds them before the test uses them
};

TEST_F(NavigationMonitor, KeepsTheOrderAndBlocksNoThreadWhileItWaitsForATitle) {
  waitForMainLoop();  // the first lookup of the start is over
  BusyLoop loop;
  play("named:A");
  const auto show = [](const char* title) { post(kDidShowViewController, std::make_shared<Controller>("B", title)); };
  Clock::advance(3s);
  show("Late");
  Clock::advance(4s);
  monitor->logScreenWithName("Tab");
  Clock::advance(5s);
  system(KLVSystemEvent::SubType::background);
  Clock::advance(60s);
  EXPECT_FALSE(monitor->waitUntilDispatched(1ms));
  EXPECT_EQ(happened, "");
  ASSERT_EQ(loop.tasks.size(), 1u);
  loop.tasks[0]();
  loop.tasks.clear();
  ASSERT_TRUE(monitor->waitUntilDispatched(20s));
  EXPECT_EQ(std::exchange(happened, ""), "A 3; ~B(Tab); B(Late) 4; B(Tab) 5; ")
      << "each screen counts from its report, not from its title";

  show("Dropped");
  EXPECT_FALSE(monitor->waitUntilDispatched(1ms));
  loop.tasks.clear();  // as a loop does that has ended
  play("named:C");
  EXPECT_EQ(std::exchange(happened, ""), "B 0; ") << "BACKGROUND has dispatched the tab";

  show("Too late");
  system(KLVSystemEvent::SubType::background);
  EXPECT_FALSE(monitor->waitUntilDispatched(1ms));
  monitor->stopReadingTitles();
  play("did:D/Unread");
  EXPECT_EQ(happened, "C 0; B 0; ");
  for (const auto& task : loop.tasks) task();
  loop.tasks.clear();
  play("background");
  EXPECT_EQ(happened, "C 0; B 0; D 0; ");
}

}  // namespace
}  // namespace kelvo::test
