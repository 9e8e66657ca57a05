// A host of the shared library that knows the public headers only, and does what it is told, a line at a time: a word
// of the table at the end and what follows it, or else an event of that name. What the test has to know it prints. At
// the end of its input it returns from main, whatever its threads do: with 0, or with 9 when any call took long.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <thread>

#include "kelvo/Application.h"
#include "kelvo/KelvoSDK.h"

namespace {

using kelvo::Application;
using kelvo::KelvoSDK;
using std::chrono::steady_clock;

void play(const std::string& line);

// --- Calls from many threads

struct Burst {
  std::atomic<int> running{0};
  std::atomic<bool> over{false};
  std::atomic<bool> slow{false};

  void begin(int count, std::chrono::microseconds pause) {
    running = 8;
    for (int thread = 0; thread < 8; ++thread) {
      std::thread([this, thread, count, pause] {
        for (int number = 0; number < count && !over; ++number) {
          const auto before = steady_clock::now();
          KelvoSDK::logAppEventWithName("burst", {{"thread", thread}, {"number", number}}, false, false);
          if (steady_clock::now() - before > std::chrono::seconds(2)) slow = true;
          if (pause.count() > 0) std::this_thread::sleep_for(pause);
        }
        --running;
        running.notify_all();
      }).detach();
    }
  }

  void join() {
    for (int left = running; left > 0; left = running) running.wait(left);
  }
};
Burst burst;  // its threads may outlive main

// --- Its ends and its children

/// Ends the process, and says when it began to.
[[noreturn]] void leave() {
  const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now().time_since_epoch());
  std::cout << "leaving at " << now.count() << std::endl;
  std::exit(33);
}

/// Its handler names the thread.
void fault() {
  struct sigaction action {};
  action.sa_handler = [](int) {
    char name[16] = {};
    prctl(PR_GET_NAME, name);
    static_cast<void>(!write(STDOUT_FILENO, name, std::strlen(name)));
    _exit(7);
  };
  sigaction(SIGSEGV, &action, nullptr);
  *static_cast<volatile char*>(mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) = 1;
}

/// What a program that forked without a thought for its library would go on to do.
[[noreturn]] void liveAsChild() {
  alarm(30);
  play("start");
  for (int i = 0; i < 100; ++i) KelvoSDK::logAppEventWithName("Of the child", {{"number", i}});
  KelvoSDK::setUserIdentifier("child");
  KelvoSDK::reportCustomError("error");
  Application::didBecomeActive();
  Application::setLogSink({});
  Application::setMainLoop([](const std::function<void()>& task) { task(); }, [] { return true; });
  Application::willResignActive();
  std::exit(KelvoSDK::getDeviceID() ? 1 : 5);
}

void forkChildren(const std::string& count) {
  for (int left = std::stoi(count); left > 0; --left) {
    const pid_t child = fork();
    if (child == 0) liveAsChild();
    int status = 0;
    waitpid(child, &status, 0);
    std::cout << "child ended with " << (WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status)) << std::endl;
  }
}

// --- Its standard error

void reuse(const std::string& path) {
  close(STDERR_FILENO);
  if (open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600) != STDERR_FILENO) std::abort();
}

void breakPipe() {
  int ends[2];
  if (pipe(ends) != 0) std::abort();
  dup2(ends[1], STDERR_FILENO);
  for (const int end : ends) close(end);
}

// --- Words

using Word = std::function<void(const std::string& rest)>;

const std::map<std::string, Word>& words() {
  static const auto& all = *new std::map<std::string, Word>{
      {"start", [](auto&) { KelvoSDK::initializeKelvoWithID("shop"); }},
      {"background", [](auto&) { Application::willResignActive(); }},
      {"foreground", [](auto&) { Application::didBecomeActive(); }},
      // COUNT PAUSE: eight threads log, COUNT events each, PAUSE microseconds apart.
      {"burst",
       [](auto& rest) {
         const auto pause = rest.find(' ');
         burst.begin(std::stoi(rest), std::chrono::microseconds(std::stoi(rest.substr(pause))));
       }},
      {"join", [](auto&) { burst.join(); }},
      {"stop", [](auto&) { burst.over = true; }},
      {"pause", [](auto& microseconds) { usleep(static_cast<useconds_t>(std::stoul(microseconds))); }},
      {"leave", [](auto&) { leave(); }},
      {"fault", [](auto&) { fault(); }},
      {"run", [](auto& command) { static_cast<void>(!std::system(command.c_str())); }},
      {"fork", forkChildren},
      {"reuse", reuse},
      {"breakPipe", [](auto&) { breakPipe(); }},
      // These play the rest of the line elsewhere: on a thread, and where the library calls the host.
      {"thread", [](auto& rest) { std::thread(play, rest).detach(); }},
      {"sink",
       [](auto& rest) {
         Application::setLogSink([rest](kelvo::LogLevel, std::string_view line) {
           if (line.find("Logging app event") != std::string_view::npos) play(rest);
         });
       }},
      {"post", [](auto& rest) {
         Application::setMainLoop([rest](const std::function<void()>&) { play(rest); }, [] { return false; });
       }}};
  return all;
}

void play(const std::string& line) {
  const std::string first = line.substr(0, line.find(' '));
  const auto word = words().find(first);
  if (word == words().end()) return KelvoSDK::logAppEventWithName(line, {});
  word->second(line.substr(std::min(line.size(), first.size() + 1)));
}

}  // namespace

int main() {
  alarm(100);  // a hang ends the process by a signal
  // Whoever waits for a line holds no lock of the C library, and writes nothing that another thread is about to write.
  std::ios::sync_with_stdio(false);
  std::cin.tie(nullptr);
  for (std::string line; std::getline(std::cin, line);) play(line);
  return burst.slow ? 9 : 0;
}
