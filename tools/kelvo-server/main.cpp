// kelvo-server: the analytics service for production, on PostgreSQL.

#include <signal.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "kelvo-server/Server.h"
#include "kelvo-server/Settings.h"
#include "kelvo-server/db/Migrate.h"
#include "kelvo-server/documents/PutDocument.h"

namespace {

constexpr int kWrongUsage = 2;  // exit status

int refuse(const std::string& what) {
  std::fprintf(stderr, "kelvo-server: cannot use \"%s\"; see kelvo-server --help\n", what.c_str());
  return kWrongUsage;
}

/// Each connection needs a descriptor: raises the limit of the process, and lowers the number of connections to it.
void fitFileLimit(kelvo::server::Settings& settings) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_max == RLIM_INFINITY) return;
  const std::size_t others = 100 + settings.databaseConnections;
  const std::size_t most = limit.rlim_max > 2 * others ? limit.rlim_max - others : limit.rlim_max / 2;
  if (settings.connections <= most) return;
  std::fprintf(stderr, "kelvo-server: %zu connections in place of %zu: the process may open %llu files\n", most,
               settings.connections, static_cast<unsigned long long>(limit.rlim_max));
  settings.connections = most;
}

/// Serves until a signal ends the process.
[[noreturn]] void serve(kelvo::server::Settings settings) {
  // Blocked before the first thread starts, so that all threads block them and only sigwait receives them.
  sigset_t signals;
  sigemptyset(&signals);
  for (const int each : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, each);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  fitFileLimit(settings);

  kelvo::server::Server server(settings);
  server.start();
  std::printf("listening on %s:%d, admin on %s:%d\n", settings.listen.address.c_str(), server.port(),
              settings.admin.address.c_str(), server.adminPort());
  std::fflush(stdout);
  for (;;) {
    int received = 0;
    sigwait(&signals, &received);
    if (received != SIGHUP) break;
    server.reload();
  }
  server.drain();
  // Without destructors: a thread that waits for a name server may still use what they free.
  std::quick_exit(0);
}

}  // namespace

int main(int count, char** values) {
  std::vector<std::string> arguments(values + 1, values + count);
  std::string command = "serve";
  for (const std::string& argument : arguments) {
    if (argument != "--help") continue;
    std::fputs(kelvo::server::kHelp, stdout);
    return 0;
  }
  if (!arguments.empty() && arguments.front().rfind("--", 0) != 0) {
    command = arguments.front();
    arguments.erase(arguments.begin());
  }
  std::vector<std::string> operands;
  if (command == "put") {
    constexpr std::size_t kOperands = 3;
    if (arguments.size() < kOperands) return refuse(command);
    operands.assign(arguments.begin(), arguments.begin() + kOperands);
    arguments.erase(arguments.begin(), arguments.begin() + kOperands);
  }
  if (command != "serve" && command != "migrate" && command != "put") return refuse(command);
  const auto [settings, fault] = kelvo::server::readSettings(arguments);
  if (!settings) return refuse(fault);
  try {
    if (command == "put") {
      return kelvo::server::putDocument({settings->database, operands[0], operands[1], operands[2]});
    }
    if (command == "serve") serve(*settings);
    kelvo::server::db::migrate(settings->database);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kelvo-server: %s\n", error.what());
    return 1;
  }
}
