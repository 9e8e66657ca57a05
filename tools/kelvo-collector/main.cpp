// kelvo-collector: the analytics service on this machine, for developers of applications that use Kelvo.

#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "kelvo-collector/http/Server.h"
#include "kelvo-collector/http/Token.h"
#include "kelvo-collector/store/Store.h"
#include "kelvo-service/Documents.h"
#include "kelvo-service/Parameters.h"
#include "kelvo-service/ServiceState.h"
#include "platform/Files.h"

namespace {

constexpr int kStandardPort = 8288;
constexpr int kWrongUsage = 2;  // exit status
constexpr int kHighestPort = 65535;
constexpr std::int64_t kMostMegabytes = 1 << 20;

constexpr const char* kHelp =
    R"(usage: kelvo-collector [--port N] [--data DIR] [--keep MB] [--private]
                       [--tls-cert FILE --tls-key FILE]

The analytics service on 127.0.0.1: answers every path that an application with
Kelvo asks for, checks each chunk that arrives and keeps it. It prints the
address it listens on and serves until SIGINT or SIGTERM.

  --port N          the port, 0 for a free one (default 8288)
  --data DIR        keep received data and the service's documents in DIR
                    (default: in memory, until the program ends)
  --keep MB         keep at most MB megabytes of received data: then the oldest
                    requests make room (default 512)
  --private         answer below /debug only to those who know a token: it is
                    in the address that is printed, and in a file that only you
                    can read. Without it, every user of this machine can read
                    the data and steer the service
  --tls-cert FILE   serve HTTPS with this certificate chain and
  --tls-key FILE    this key, both PEM
  --help            this text

Point an application at it with
  KELVO_SERVER_BASE_URL=http://127.0.0.1:8288 ./application
and open the address in a browser to watch the data arrive and to make the
service misbehave.

For tests and scripts, as JSON:
  /debug/wait?count=N[&name=...][&kind=...][&session=...][&timeout=S]
  /debug/events, /debug/counts, /debug/problems, /debug/requests
PUT /debug/answer?path=/chunks&status=503[&times=N] answers every request whose
method and path contain that text ("/chunks", "DELETE /v2/api/user") with that
status, N times or until it is switched off. The same without a status switches
it off.
An unknown path lists all paths.

Exit status: 0 after a signal, 1 when it cannot serve, 2 for wrong usage.
)";

struct Options {
  int port = kStandardPort;
  std::string data;
  std::string certificate;
  std::string key;
  std::int64_t keptMegabytes = kelvo::collector::Store::kUsualLimit >> 20U;
  bool isPrivate = false;
};

int refuse(std::string_view argument) {
  std::fprintf(stderr, "kelvo-collector: cannot use \"%.*s\"; see kelvo-collector --help\n",
               static_cast<int>(argument.size()), argument.data());
  return kWrongUsage;
}

/// Returns the path of the store's file and makes its directory. Throws std::runtime_error if that fails.
std::string storePath(const std::string& directory) {
  if (directory.empty()) return ":memory:";
  kelvo::FileError error;
  if (!kelvo::makeDirectory(directory, true, &error)) throw std::runtime_error(directory + ": " + error);
  return kelvo::joinPath(directory, "collector.db");
}

/// Returns the path of the token's file: in the directory of the data, else in the user's own runtime directory.
std::string tokenPath(const Options& options) {
  if (!options.data.empty()) return kelvo::joinPath(options.data, "collector.token");
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  const std::string directory = runtime != nullptr && *runtime == '/' ? runtime : "/tmp";
  return kelvo::joinPath(directory, "kelvo-collector." + std::to_string(getpid()) + ".token");
}

int serve(const Options& options) {
  // Blocked before the first thread starts, so that all threads block them and only sigwait receives them.
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);

  kelvo::collector::Store store(storePath(options.data), options.keptMegabytes << 20U);
  kelvo::service::ServiceState state;
  kelvo::service::loadDocuments(state, [&](const std::string& name) { return store.document(name); });
  kelvo::collector::Server server(store, state);
  std::optional<kelvo::collector::Token> token;
  if (options.isPrivate) server.setToken(token.emplace(tokenPath(options)).text());
  const int port = options.certificate.empty() ? server.start(options.port)
                                               : server.startTLS(options.certificate, options.key, options.port);
  if (port == 0) {
    std::fprintf(stderr, "kelvo-collector: cannot listen on port %d of 127.0.0.1%s\n", options.port,
                 options.certificate.empty() ? "" : ", or not use the certificate and its key");
    return 1;
  }
  std::printf("listening on %s\n", server.baseURL().c_str());
  if (token) {
    std::printf("the page: %s/#token=%s\nthe token: %s\n", server.baseURL().c_str(), token->text().c_str(),
                token->file().c_str());
  }
  std::fflush(stdout);

  int signal = 0;
  sigwait(&ends, &signal);
  server.stop();
  return 0;
}

}  // namespace

int main(int count, char** arguments) {
  Options options;
  for (int i = 1; i < count; ++i) {
    const std::string_view argument = arguments[i];
    if (argument == "--help") {
      std::fputs(kHelp, stdout);
      return 0;
    }
    if (argument == "--private") {
      options.isPrivate = true;
      continue;
    }
    std::string* text = argument == "--data"       ? &options.data
                        : argument == "--tls-cert" ? &options.certificate
                        : argument == "--tls-key"  ? &options.key
                                                   : nullptr;
    const bool takesNumber = argument == "--port" || argument == "--keep";
    if ((!takesNumber && text == nullptr) || i + 1 == count) return refuse(argument);
    const std::string_view value = arguments[++i];
    if (text != nullptr) *text = value;
    const bool isUsable = text != nullptr ? !value.empty()
                          : argument == "--port"
                              ? kelvo::service::readNumber(value, 0, kHighestPort, options.port)
                              : kelvo::service::readNumber(value, 1, kMostMegabytes, options.keptMegabytes);
    if (!isUsable) return refuse(value);
  }
  if (options.certificate.empty() != options.key.empty()) {
    return refuse(options.key.empty() ? "--tls-cert without --tls-key" : "--tls-key without --tls-cert");
  }
  try {
    return serve(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kelvo-collector: %s\n", error.what());
    return 1;
  }
}
