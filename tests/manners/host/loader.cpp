// A host that does not link the library. It loads manners/host/plugin.cpp at run time, which does. The host also uses
// SQLite and curl, and changes the settings of its process; at the end it prints each setting that the library changed.

#include <curl/curl.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iostream>
#include <iterator>
#include <map>
#include <string>

namespace {

/// Loads the plug-in, calls the functions, and unloads the plug-in.
void callPlugIn(const char* path, std::initializer_list<const char*> functions) {
  void* const plugIn = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (plugIn == nullptr) std::cerr << dlerror() << std::endl;
  for (const char* function : functions) reinterpret_cast<void (*)()>(dlsym(plugIn, function))();
  dlclose(plugIn);
}

void waitForLine() {
  std::cin.ignore(100, '\n');
}

/// Returns the settings that a process has only once and that a library could change, as text.
std::map<std::string, std::string> settings() {
  std::map<std::string, std::string> all;
  const auto bytes = [](const auto& value) {
    return std::string(reinterpret_cast<const char*>(&value), sizeof value);  // only compared
  };
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction action {};
    if (sigaction(number, nullptr, &action) != 0) continue;
    all["signal " + std::to_string(number)] =
        bytes(action.sa_handler) + bytes(action.sa_flags) + bytes(sigismember(&action.sa_mask, SIGUSR2));
  }
  std::ifstream status("/proc/self/status"), limits("/proc/self/limits");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("SigBlk", 0) == 0 || line.rfind("Umask", 0) == 0) all[line.substr(0, 5)] = line;
  }
  all["limits"] = {std::istreambuf_iterator<char>(limits), {}};
  for (char** entry = environ; *entry != nullptr; ++entry) all["environment"] += std::string(*entry) + "\n";
  for (int file = 0; file < 3; ++file) all["flags of " + std::to_string(file)] = std::to_string(fcntl(file, F_GETFL));
  all["locale"] = std::setlocale(LC_ALL, nullptr);
  all["directory"] = std::filesystem::current_path();
  all["terminate handler"] = bytes(std::get_terminate());
  all["SQLite's limits"] =
      std::to_string(sqlite3_soft_heap_limit64(-1)) + " " + std::to_string(sqlite3_hard_heap_limit64(-1));
  return all;
}

/// Changes settings to values that differ from the defaults.
void changeSettings() {
  std::setlocale(LC_ALL, "");
  umask(027);
  static_cast<void>(!chdir("/"));
  struct sigaction action {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;
  for (const int number : {SIGUSR1, SIGSEGV, SIGTERM, SIGCHLD}) sigaction(number, &action, nullptr);
  std::signal(SIGHUP, SIG_IGN);
  sigset_t own;
  sigemptyset(&own);
  sigaddset(&own, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &own, nullptr);
  std::set_terminate([] { _exit(99); });
  sqlite3_soft_heap_limit64(64 << 20);
}

void useSQLite() {
  sqlite3* database = nullptr;
  const bool works = sqlite3_open(":memory:", &database) == SQLITE_OK &&
                     sqlite3_exec(database, "create table t (a)", nullptr, nullptr, nullptr) == SQLITE_OK;
  sqlite3_close(database);
  if (!works) std::cout << "SQLite does not work" << std::endl;
}

void useCurl() {
  CURL* const curl = curl_easy_init();
  const std::string url = std::string(getenv("KELVO_SERVER_BASE_URL")) + "/debug/requests";
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  const CURLcode code = curl_easy_perform(curl);
  if (code != CURLE_OK) std::cout << "curl does not work: " << curl_easy_strerror(code) << std::endl;
  curl_easy_cleanup(curl);
}

}  // namespace

/// The host unloads the plug-in and ends its use of curl while the library is running. Then it uses both again.
int main(int, char** arguments) {
  const char* const plugIn = arguments[1];
  changeSettings();
  curl_global_init(CURL_GLOBAL_DEFAULT);
  useCurl();
  useSQLite();
  const auto before = settings();
  callPlugIn(plugIn, {"start"});
  waitForLine();
  callPlugIn(plugIn, {"logAndResign"});
  if (dlopen(plugIn, RTLD_NOW | RTLD_NOLOAD) != nullptr) std::cout << "the plug-in is still there" << std::endl;
  waitForLine();
  useCurl();
  curl_global_cleanup();
  callPlugIn(plugIn, {"start", "logAndResign"});
  waitForLine();
  curl_global_init(CURL_GLOBAL_DEFAULT);
  useCurl();
  useSQLite();
  for (const auto& [name, value] : settings()) {
    if (before.at(name) != value) std::cout << "changed: " << name << std::endl;
  }
  std::cout << "compared " << before.size() << std::endl;
  return 0;
}
