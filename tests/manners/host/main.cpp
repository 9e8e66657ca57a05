// A host of the shared library that uses the public headers only. A test controls it by lines of input: a line that
// begins with a word of the table below runs that command; any other line logs an event of that name. The host prints
// what the test needs to know. At the end of its input it returns from main, even if its threads are still running:
// with 0, or with `kSlowCall` if any call took too long.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
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
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "kelvo/Application.h"
#include "kelvo/KelvoSDK.h"
#include "kelvo/Plugin.h"

namespace {

using kelvo::Application;
using kelvo::KelvoSDK;
using std::chrono::steady_clock;

constexpr int kSlowCall = 9;
constexpr int kLeft = 33;
constexpr int kFault = 7;
constexpr int kChildWasIdle = 5;
constexpr int kThreads = 8;
constexpr unsigned kLongestRunSeconds = 100;

void play(const std::string& line);

// --- Calls from many threads

struct Burst {
  std::atomic<int> running{0};
  std::atomic<bool> over{false};
  std::atomic<bool> slow{false};

  void begin(int count, std::chrono::microseconds pause) {
    running = kThreads;
    for (int thread = 0; thread < kThreads; ++thread) {
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
Burst burst;  // its threads may still run after main has returned

// --- Ends of the process, and child processes

/// Writes one line to standard output. Callbacks of the library write, too.
void say(const std::function<void(std::ostream& out)>& write) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  write(std::cout);
  std::cout << std::endl;
}

/// Prints the time, in milliseconds of the steady clock, and ends the process.
[[noreturn]] void leave() {
  const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now().time_since_epoch());
  say([&](std::ostream& out) { out << "leaving at " << now.count(); });
  std::exit(kLeft);
}

/// Causes a fault on the calling thread. The host's handler prints the thread's name.
void fault() {
  struct sigaction action {};
  action.sa_handler = [](int) {
    char name[16] = {};
    prctl(PR_GET_NAME, name);
    static_cast<void>(!write(STDOUT_FILENO, name, std::strlen(name)));
    _exit(kFault);
  };
  sigaction(SIGSEGV, &action, nullptr);
  *static_cast<volatile char*>(mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) = 1;
}

/// Uses the library in a forked child, as a host that does not care would. Exits with `kChildWasIdle` if the calls had
/// no effect.
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
  const auto flushed = KelvoSDK::flushAndWait(std::chrono::hours(1)).outcome;
  std::exit(KelvoSDK::getDeviceID() || flushed != kelvo::FlushOutcome::notCollecting ? EXIT_FAILURE : kChildWasIdle);
}

/// Prints the outcome as a number, and the reason.
void flush(const std::string& milliseconds) {
  const auto result = KelvoSDK::flushAndWait(std::chrono::milliseconds(std::stoi(milliseconds)));
  say([&](std::ostream& out) { out << "flushed " << static_cast<int>(result.outcome) << " " << result.reason; });
}

void forkChildren(const std::string& count) {
  for (int left = std::stoi(count); left > 0; --left) {
    const pid_t child = fork();
    if (child == 0) liveAsChild();
    int status = 0;
    waitpid(child, &status, 0);
    say([&](std::ostream& out) {
      out << "child ended with " << (WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status));
    });
  }
}

// --- Standard error

/// Closes standard error and opens a file, which gets the same descriptor.
void reuse(const std::string& path) {
  close(STDERR_FILENO);
  if (open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600) != STDERR_FILENO) std::abort();
}

/// Makes standard error a pipe without a reader.
void breakPipe() {
  int ends[2];
  if (pipe(ends) != 0) std::abort();
  dup2(ends[1], STDERR_FILENO);
  for (const int end : ends) close(end);
}

// --- The limit on the size of files

/// Prints the state of SIGXFSZ on this thread.
void printLimitSignal() {
  sigset_t blocked, pending;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  sigpending(&pending);
  say([&](std::ostream& out) {
    out << "SIGXFSZ " << (sigismember(&blocked, SIGXFSZ) == 1 ? "blocked" : "free")
        << (sigismember(&pending, SIGXFSZ) == 1 ? " pending" : "");
  });
}

/// Limits the size of files. With the word "blocked", this thread also blocks SIGXFSZ and keeps one pending.
void limit(const std::string& sizeAndWord) {
  const rlimit size{std::stoul(sizeAndWord), RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &size);
  if (sizeAndWord.find("blocked") != std::string::npos) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    raise(SIGXFSZ);
  }
  printLimitSignal();
}

/// Makes every call that reads or writes stored data, as the host and as a plug-in.
void readAndWrite(const std::string& count) {
  using Services = kelvo::PluginServices;
  for (int number = std::stoi(count); number > 0; --number) {
    const std::string name = "read " + std::to_string(number % 50), text(3000, 'x');
    for (int i = 0; i < 10; ++i) KelvoSDK::logAppEventWithName(name, {{"text", text}});
    KelvoSDK::setUserCustomInfo({{"text", text + std::to_string(number)}});
    KelvoSDK::setSessionCustomInfo({{"text", text}});
    Application::willResignActive();
    Application::didBecomeActive();
    Services::saveFrequencyInfo({{"text", text}}, name);
    Services::persistPIDMIDDict({{name, text}}, "rta");
    static_cast<void>(Services::getLifetimeCountForEvents({name, "never logged"}));
    static_cast<void>(Services::retrieveFrequencyConfigWithIdentifier(name));
    static_cast<void>(Services::getPIDMIDDictForType("rta"));
    static_cast<void>(Services::getConfigForActionType("rta"));
  }
  printLimitSignal();
}

/// Makes each kind of call that begins work in the library, as the host and as a plug-in.
void makeEveryCall() {
  using Services = kelvo::PluginServices;
  KelvoSDK::onReady([](auto&) {});
  KelvoSDK::logAppEventWithName("app", {{"a", 1}});
  KelvoSDK::logClientEventWithName("client");
  KelvoSDK::logAggregateEvent("aggregate");
  KelvoSDK::reportCustomError("error");
  KelvoSDK::setUserIdentifier("user");
  KelvoSDK::setUserCustomInfo({{"a", 1}});
  KelvoSDK::setSessionCustomInfo({{"a", 1}});
  KelvoSDK::logScreenWithName("named");
  for (const char* name : {"First", "Second"}) Application::show(name);
  Application::didBecomeActive();
  Application::willResignActive();
  Application::logDeviceToken("token");
  Application::setViewTree(nullptr);
  Application::printViewTree();
  Services::dispatchEvent(kelvo::KLVEventType::push, "plug-in");
  Services::executeAfterDelay(0, [] {});
  Services::registerForTimerNotificationWithInterval(1, [] {});
  Services::getDataFromURLPath("/", [](auto&) {});
  KelvoSDK::flush(std::chrono::hours(1), [](auto&) {});
  const auto flushed = KelvoSDK::flushAndWait(std::chrono::milliseconds(10));
  say([&](std::ostream& out) {
    out << (KelvoSDK::getDeviceID() ? "an id " : "no id ") << KelvoSDK::describeData().empty() << ' '
        << static_cast<int>(flushed.outcome) << ' ' << flushed.reason;
  });
}

// --- The host's own curl

/// Initialises curl. With a URL, also sends a request, and prints curl's result and version.
void useCurl(const std::string& libraryAndURL) {
  const auto space = libraryAndURL.find(' ');
  const std::string library = libraryAndURL.substr(0, space);
  void* const curl = dlopen(library.empty() ? KELVO_LIBCURL : library.c_str(), RTLD_NOW | RTLD_GLOBAL);
  const auto initialise = reinterpret_cast<int (*)(long)>(dlsym(curl, "curl_global_init"));
  constexpr long kAll = 3;
  initialise(kAll);
  if (library.empty()) return;
  const std::string url = libraryAndURL.substr(space + 1);
  const auto set = reinterpret_cast<int (*)(void*, int, ...)>(dlsym(curl, "curl_easy_setopt"));
  void* const easy = reinterpret_cast<void* (*)()>(dlsym(curl, "curl_easy_init"))();
  constexpr int kURL = 10002, kNoProxy = 10177, kNoBody = 44, kVerifyPeer = 64, kVerifyHost = 81;
  set(easy, kURL, url.c_str());
  set(easy, kNoProxy, "*");
  set(easy, kNoBody, 1L);
  for (const int check : {kVerifyPeer, kVerifyHost}) set(easy, check, 0L);
  const int code = reinterpret_cast<int (*)(void*)>(dlsym(curl, "curl_easy_perform"))(easy);
  const char* const version = reinterpret_cast<const char* (*)()>(dlsym(curl, "curl_version"))();
  say([&](std::ostream& out) { out << "curl " << code << ' ' << version; });
  reinterpret_cast<void (*)(void*)>(dlsym(curl, "curl_easy_cleanup"))(easy);
}

// --- Options and status

/// Starts the library with the options in `text`: words of the form NAME=VALUE.
void startWithOptions(const std::string& text) {
  kelvo::Options options;
  const std::map<std::string, std::string*> texts{
      {"id", &options.appId},          {"url", &options.serverBaseURL},   {"ca", &options.caFile},
      {"home", &options.home},         {"user", &options.userIdentifier}, {"name", &options.appName},
      {"version", &options.appVersion}};
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const auto sign = word.find('=');
    const std::string name = word.substr(0, sign), value = word.substr(sign + 1);
    if (const auto member = texts.find(name); member != texts.end()) *member->second = value;
    if (name == "delivery")
      options.delivery = value == "classic" ? kelvo::Delivery::classic : kelvo::Delivery::complete;
    if (name == "level") options.logLevel = value == "info" ? kelvo::LogLevel::info : kelvo::LogLevel::off;
    if (name == "farewell") options.farewell = true;
    if (name == "bytes") options.maxStoredBytes = std::stoull(value);
    if (name == "days") options.maxStoredDays = static_cast<std::uint32_t>(std::stoul(value));
    if (name == "calls") options.maxWaitingCalls = std::stoul(value);
    if (name == "journal") options.journalBytes = std::stoull(value);
    if (name == "consent") options.consentRequired = value == "required";
    if (name == "held") options.maxHeldCalls = std::stoul(value);
    if (name == "sink") {
      options.logSink = [](kelvo::LogLevel, std::string_view line) {
        say([&](std::ostream& out) { out << "sink " << line; });
      };
    }
  }
  KelvoSDK::start(options);
}

/// Prints the number of the state, as in `KelvoSDK::State`, and the reason.
void printStatus(const KelvoSDK::Status& status) {
  say([&](std::ostream& out) { out << "status " << static_cast<int>(status.state) << ' ' << status.reason; });
}

// --- Words

using Word = std::function<void(const std::string& rest)>;

const std::map<std::string, Word>& words() {
  static const auto& all = *new std::map<std::string, Word>{
      {"start", [](auto&) { KelvoSDK::initializeKelvoWithID("shop"); }},
      {"options", startWithOptions},
      {"ready", [](auto&) { KelvoSDK::onReady(printStatus); }},
      {"throw", [](auto&) { KelvoSDK::onReady([](auto&) { throw std::runtime_error("of the host"); }); }},
      {"token",
       [](auto& text) {
         Application::logDeviceToken(text.empty() ? kelvo::OptionalText() : kelvo::OptionalText(text));
       }},
      {"interaction",
       [](auto& name) { kelvo::PluginServices::dispatchEvent(kelvo::KLVEventType::userInteraction, name); }},
      {"background", [](auto&) { Application::willResignActive(); }},
      {"screen", [](auto& name) { Application::show(name); }},
      // consent granted|denied; without either, prints the state.
      {"consent",
       [](auto& text) {
         if (text == "granted") return KelvoSDK::setConsent(kelvo::Consent::granted);
         if (text == "denied") return KelvoSDK::setConsent(kelvo::Consent::denied);
         say([&](std::ostream& out) { out << "consent " << static_cast<int>(KelvoSDK::consent()); });
       }},
      {"everyCall", [](auto&) { makeEveryCall(); }},
      {"foreground", [](auto&) { Application::didBecomeActive(); }},
      // burst COUNT PAUSE: eight threads log COUNT events each, PAUSE microseconds apart.
      {"burst",
       [](auto& rest) {
         const auto pause = rest.find(' ');
         burst.begin(std::stoi(rest), std::chrono::microseconds(std::stoi(rest.substr(pause))));
       }},
      {"long",
       [](auto& number) {
         KelvoSDK::logAppEventWithName("long", {{"number", number}, {"text", std::string(250, 'x')}});
       }},
      {"join", [](auto&) { burst.join(); }},
      {"stop", [](auto&) { burst.over = true; }},
      {"pause", [](auto& microseconds) { usleep(static_cast<useconds_t>(std::stoul(microseconds))); }},
      {"attributes",
       [](auto& text) {
         KelvoSDK::setUserCustomInfo({{"text", text}});
         KelvoSDK::setSessionCustomInfo({{"text", text}});
       }},
      {"leave", [](auto&) { leave(); }},
      {"kill", [](auto&) { raise(SIGKILL); }},
      {"erase", [](auto&) { KelvoSDK::erase(); }},
      {"limit", limit},
      // curl [LIBRARY URL]: initialises the library's curl, or requests URL with the curl in LIBRARY, as the host's
      // own.
      {"curl", useCurl},
      {"reads", readAndWrite},
      {"fault", [](auto&) { fault(); }},
      {"run", [](auto& command) { static_cast<void>(!std::system(command.c_str())); }},
      {"fork", forkChildren},
      {"flush", flush},
      {"flushAtExit", [](auto&) { std::atexit([] { flush("3600000"); }); }},
      {"reuse", reuse},
      {"breakPipe", [](auto&) { breakPipe(); }},
      // These play the rest of the line on a new thread, in the log sink, and in the main loop's `post`.
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
  alarm(kLongestRunSeconds);  // ends a hanging process by a signal
  // While this thread waits for a line, it must hold no lock of the C library and must not flush another thread's
  // output.
  std::ios::sync_with_stdio(false);
  std::cin.tie(nullptr);
  for (std::string line; std::getline(std::cin, line);) play(line);
  return burst.slow ? kSlowCall : EXIT_SUCCESS;
}
