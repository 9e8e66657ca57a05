// Fuzzes the collector with raw requests on a real connection: heads, bodies, encodings, several requests in a row.

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Fuzzing.h"
#include "kelvo-collector/http/Server.h"
#include "kelvo-collector/store/Retention.h"
#include "kelvo-service/ServiceState.h"

namespace kelvo::fuzz {
namespace {

constexpr std::int64_t kMostBytes = 2 << 20;
/// An input may script answers that hang until the client ends. They are removed after so many inputs.
constexpr int kInputsBetweenResets = 1000;

struct Collector {
  collector::Store store{":memory:", kMostBytes};
  collector::ServiceState state;
  collector::Server server{store, state};
  const int port = server.start();
};

/// Sends `bytes` and ends the sending side. Returns the answers.
std::string talk(int port, const std::string& bytes) {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const linger reset{1, 0};  // no connection is left in the state TIME_WAIT: the ports would run out
  setsockopt(socket, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  std::string answers;
  if (connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    ::shutdown(socket, SHUT_WR);
    char piece[4096];
    for (ssize_t count; (count = recv(socket, piece, sizeof piece, 0)) > 0;) {
      answers.append(piece, static_cast<std::size_t>(count));
    }
  }
  ::close(socket);
  return answers;
}

}  // namespace
}  // namespace kelvo::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace kelvo::fuzz;
  static Collector* const collector = new Collector;
  require(collector->port != 0, "the collector listens");
  const std::string answers = talk(collector->port, std::string(reinterpret_cast<const char*>(bytes), size));
  require(answers.empty() || answers.rfind("HTTP/1.", 0) == 0, "an answer is HTTP");
  require(answers.find("500 Internal") == std::string::npos, "no request makes the collector fail");
  const auto used = collector->store.read([](auto& database) { return kelvo::collector::usedBytes(database); });
  require(used <= kMostBytes, "the kept data is bounded");

  static int count = 0;
  if (++count % kInputsBetweenResets == 0) {
    static_cast<void>(talk(collector->port, "DELETE /debug/answer HTTP/1.1\r\nHost: localhost\r\n\r\n"));
  }
  return 0;
}
