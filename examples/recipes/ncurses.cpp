#include <curses.h>
#include <kelvo/KelvoSDK.h>

int main() {
  kelvo::KelvoSDK::start(kelvo::Options("hex-editor"));
  kelvo::Application::didBecomeActive();  // the program has the terminal for itself
  kelvo::Application::show("Hex view");
  initscr();
  noecho();
  addstr("q quits");
  for (int key = getch(); key != 'q' && key != ERR; key = getch()) {
    kelvo::KelvoSDK::logAppEventWithName("Key pressed", {{"key", key}});
  }
  endwin();
  kelvo::Application::willResignActive();
  kelvo::KelvoSDK::flushAndWait(std::chrono::seconds(3));
}
