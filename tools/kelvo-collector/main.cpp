// kelvo-collector: the analytics service on this machine, for whoever develops an application with Kelvo.

#include <signal.h>

#include <charconv>
#include <cstdio>
#include <exception>
#include <string_view>

#include "kelvo-collector/Server.h"
#include "kelvo-collector/ServiceState.h"
#include "kelvo-collector/Store.h"

namespace {

constexpr int kStandardPort = 8288;
constexpr int kWrongUsage = 2;

constexpr const char* kHelp =
    R"(usage: kelvo-collector [--port N]

The analytics service on 127.0.0.1: answers every path that an application with
Kelvo asks for, checks each chunk that arrives and keeps it until the end. It
prints the address it listens on and serves until SIGINT or SIGTERM.

  --port N   the port, 0 for a free one (8288 when not given)
  --help     this text

Point an application at it with
  KELVO_SERVER_BASE_URL=http://127.0.0.1:8288 ./application

What arrived, as JSON, times in milliseconds since 1970:
  /debug/requests  every request: method, path, query, body, status answered
  /debug/chunks    every accepted chunk: session, number, events by kind;
                   "duplicate" when it came before with the same events,
                   "conflict" when it came before with other events
Both take ?after=N, to leave out what came up to request N.

PUT /debug/answer?path=/chunks&status=503[&times=N] answers requests whose path
holds that text so, for the next N or for good; without a status, as usual.

Exit status: 0 after a signal, 1 when it cannot serve, 2 for wrong usage.
)";

int refuse(std::string_view argument) {
  std::fprintf(stderr, "kelvo-collector: cannot use \"%.*s\"; see kelvo-collector --help\n",
               static_cast<int>(argument.size()), argument.data());
  return kWrongUsage;
}

bool readPort(std::string_view text, int& port) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc() && end == text.data() + text.size() && port >= 0 && port <= 65535;
}

int serve(int port) {
  // Blocked before the first thread starts, so every thread has them blocked and only sigwait takes them.
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);

  kelvo::collector::Store store;
  kelvo::collector::ServiceState state;
  kelvo::collector::Server server(store, state);
  if (server.start(port) == 0) {
    std::fprintf(stderr, "kelvo-collector: cannot listen on port %d of 127.0.0.1\n", port);
    return 1;
  }
  std::printf("listening on %s\n", server.baseURL().c_str());
  std::fflush(stdout);

  int signal = 0;
  sigwait(&ends, &signal);
  server.stop();
  return 0;
}

}  // namespace

int main(int count, char** arguments) {
  int port = kStandardPort;
  for (int i = 1; i < count; ++i) {
    const std::string_view argument = arguments[i];
    if (argument == "--help") {
      std::fputs(kHelp, stdout);
      return 0;
    }
    if (argument != "--port" || i + 1 == count) return refuse(argument);
    if (!readPort(arguments[++i], port)) return refuse(arguments[i]);
  }
  try {
    return serve(port);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kelvo-collector: %s\n", error.what());
    return 1;
  }
}
