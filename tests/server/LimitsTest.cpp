#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <sstream>

#include "DatabaseProxy.h"
#include "ServerTest.h"
#include "kelvo-server/http/Networks.h"
#include "kelvo-server/http/Target.h"
#include "support/Program.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

using Limits = ServerTest;
using Programs = ServerTest;

/// A connection that the test writes byte by byte.
class Socket {
 public:
  explicit Socket(int port) : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    isOpen_ = connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    const timeval patience{10, 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }
  ~Socket() { close(socket_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  [[nodiscard]] bool isOpen() const { return isOpen_; }
  void write(const std::string& text) const {
    static_cast<void>(::send(socket_, text.data(), text.size(), MSG_NOSIGNAL));
  }
  /// Reads until `end` arrives, or until the server closes or stays silent for 10 s.
  [[nodiscard]] std::string readUntil(const std::string& end) const {
    std::string text;
    char piece[4096];
    while (text.find(end) == std::string::npos) {
      const ssize_t size = recv(socket_, piece, sizeof piece, 0);
      if (size <= 0) break;
      text.append(piece, static_cast<std::size_t>(size));
    }
    return text;
  }

 private:
  int socket_;
  bool isOpen_ = false;
};

TEST_F(Limits, ABodyAHeadARateAndBytesInFlightBeyondTheLimitAreRefused) {
  const server::Server& server = start({"--body", "3", "--in-flight", "2"});
  const HTTPAnswer full = post(server.port(), std::string(3 << 20, ' '));
  EXPECT_EQ(full.status, 503) << "more than is allowed in flight";
  EXPECT_GT(full.retryAfter, 0);
  EXPECT_EQ(post(server.port(), std::string((3 << 20) + 1, ' ')).status, 413);
  EXPECT_EQ(send(server.port(), chunks, "{}", {.headers = {"Content-Encoding: gzip"}}).status, 415);
  EXPECT_EQ(send(server.port(), chunks, "{}", {.headers = {"Long: " + std::string(20000, 'x')}}).status, 400);
  EXPECT_EQ(get(server.port(), "/v2/api/%zz/sdk/enabled-status").status, 400);
  EXPECT_EQ(get(server.port(), "/v2/api/%ff/sdk/enabled-status").status, 400);
  EXPECT_EQ(metric(server, "refused_413_total"), 1);

  // A client that announces much and sends little holds nothing that others need.
  const Socket slow(server.port());
  slow.write("POST " + chunks + " HTTP/1.1\r\nHost: a\r\nContent-Length: 3000000\r\n\r\n{");
  EXPECT_EQ(post(server.port(), std::string(1 << 20, ' ')).status, 200);

  const server::Server& rated = start({"--per-app", "4"});
  int refused = 0;
  for (int i = 0; i < 60; ++i) {
    const HTTPAnswer answer = post(rated.port(), ChunkBody{.number = i + 1}.text());
    if (answer.status == 429 && answer.retryAfter > 0) ++refused;
  }
  EXPECT_GT(refused, 5);
  EXPECT_EQ(count("chunks") + refused, 60);
  EXPECT_EQ(get(rated.port(), "/v2/api/other/sdk/enabled-status").status, 200) << "another application";
}

TEST_F(Limits, ConnectionsAreLimitedByAddressAndBehindAProxyByItsClients) {
  const server::Server& direct = start({"--per-address", "3"});
  {
    const std::string request = "GET /v2/api/a/sdk/enabled-status HTTP/1.1\r\nHost: a\r\n\r\n";
    const Socket sockets[] = {Socket(direct.port()), Socket(direct.port()), Socket(direct.port()),
                              Socket(direct.port())};
    int answered = 0;
    for (const Socket& socket : sockets) {
      socket.write(request + request);  // two at once
      const std::string text = socket.readUntil("}HTTP/1.1 200 OK");
      answered += text.find("}HTTP/1.1 200 OK") != std::string::npos;
    }
    EXPECT_EQ(answered, 3);
  }
  const server::Server& behind = start({"--per-address", "1", "--trusted-proxy", "10.0.0.0/8,127.0.0.1"});
  const Socket holder(behind.port());
  holder.write("POST " + chunks + " HTTP/1.1\r\nHost: a\r\nX-Forwarded-For: 1.2.3.4\r\nContent-Length: 10\r\n\r\nhalf");
  EXPECT_TRUE(eventually([&] {
    return get(behind.adminPort(), "/metrics").body.find("kelvo_bytes_in_flight 10\n") != std::string::npos;
  }));
  const auto from = [&](const std::string& address) {
    const HTTPOptions options{.method = "GET", .headers = {"X-Forwarded-For: " + address}};
    return send(behind.port(), "/v2/api/a/sdk/enabled-status", {}, options).status;
  };
  EXPECT_EQ(from("1.2.3.4"), 503);
  EXPECT_EQ(from("6.6.6.6, 1.2.3.4, 10.9.9.9"), 503) << "a client cannot choose its address";
  EXPECT_EQ(from("1.2.3.5"), 200);
}

TEST(Networks, TheClientIsTheLastAddressThatIsNoProxy) {
  const server::Networks proxies({"10.0.0.0/9", "2001:db8::/33", "192.168.1.1"});
  const struct {
    const char *peer, *forwarded, *client;
  } cases[] = {{"1.1.1.1", "2.2.2.2", "1.1.1.1"},
               {"10.0.0.1", "", "10.0.0.1"},
               {"10.0.0.1", "2.2.2.2", "2.2.2.2"},
               {"10.127.0.1", "9.9.9.9,2.2.2.2 , 192.168.1.1", "2.2.2.2"},
               {"10.128.0.1", "2.2.2.2", "10.128.0.1"},
               {"2001:db8:7fff::1", "2.2.2.2", "2.2.2.2"},
               {"2001:db8:8000::1", "2.2.2.2", "2001:db8:8000::1"},
               {"::ffff:10.0.0.1", "2.2.2.2", "2.2.2.2"},
               {"10.0.0.1", "2.2.2.2, nonsense", "10.0.0.1"}};
  for (const auto& each : cases) {
    EXPECT_EQ(server::clientAddress(each.peer, each.forwarded, proxies), each.client) << each.peer << each.forwarded;
  }
  EXPECT_EQ(server::limitKey("2001:db8::1"), server::limitKey("2001:db8:0:0:ffff::2"));
  EXPECT_NE(server::limitKey("2001:db8::1"), server::limitKey("2001:db8:0:1::1"));
  EXPECT_NE(server::limitKey("1.2.3.4"), server::limitKey("1.2.3.5"));
  for (const char* wrong : {"10.0.0.0/33", "a", "10.0.0.0/", "::/129"})
    EXPECT_ANY_THROW(server::Networks({wrong})) << wrong;
}

TEST(Targets, PathsAndParametersAreDecoded) {
  service::Request request;
  ASSERT_TRUE(server::readTarget("/v2/a%2Fb/%C3%A4+?pids=a%2Bb&pids=c+d&empty&=x", request));
  EXPECT_EQ(request.path, "/v2/a/b/ä+");
  EXPECT_EQ(request.parameters,
            (decltype(request.parameters){{"pids", "a+b"}, {"pids", "c d"}, {"empty", ""}, {"", "x"}}));
  for (const char* wrong : {"", "x", "/%", "/%1", "/%g0", "/%00", "/?a=%0"}) {
    EXPECT_FALSE(server::readTarget(wrong, request)) << wrong;
  }
}

TEST_F(Programs, MigrateRunsTwiceAtOnceAndWrongUsageIsRefused) {
  sql("DROP DATABASE IF EXISTS empty");
  sql("CREATE DATABASE empty");
  const Program::Environment empty{{"KELVO_SERVER_DATABASE", "dbname=empty"}};
  Program first({KELVO_SERVER_PROGRAM, "migrate"}, empty);
  Program second({KELVO_SERVER_PROGRAM, "migrate"}, empty);
  EXPECT_EQ(first.wait(), 0) << first.errors();
  EXPECT_EQ(second.wait(), 0) << second.errors();
  const std::string output = first.output() + second.output();
  EXPECT_EQ(output.find("0001_tables.sql"), output.rfind("0001_tables.sql")) << output;
  EXPECT_NE(output.find("0001_tables.sql"), std::string::npos);

  const std::vector<std::vector<std::string>> wrong{
      {"--listen", "8288"}, {"--per-app"}, {"--unknown", "1"}, {"start"}, {"--tls-cert", "/x"}, {"put", "config", "a"}};
  for (const auto& arguments : wrong) {
    std::vector<std::string> command{KELVO_SERVER_PROGRAM};
    command.insert(command.end(), arguments.begin(), arguments.end());
    EXPECT_EQ(Program(command, empty).wait(), 2) << arguments.front();
  }
  EXPECT_EQ(
      Program({KELVO_SERVER_PROGRAM}, {{"KELVO_SERVER_DATABASE", "dbname=empty"}, {"KELVO_SERVER_BODY", "0"}}).wait(),
      2);

  Program help({KELVO_SERVER_PROGRAM, "--help"}, {});
  EXPECT_EQ(help.wait(), 0);
  std::istringstream lines(help.output());
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) EXPECT_LE(line.size(), 80U) << line;
  EXPECT_LT(count, 24) << "the help fits a screen";
}

TEST_F(Programs, SIGTERMAnswersTheRequestsThatWaitAndEndsTheProgram) {
  Program program({KELVO_SERVER_PROGRAM, "--listen", "127.0.0.1:0", "--admin", "127.0.0.1:0"}, {});
  ASSERT_TRUE(program.waitForOutput("admin on")) << program.errors();
  const int port = std::atoi(program.output().c_str() + program.output().find(':') + 1);
  ASSERT_TRUE(deliver({port}, {.device = "first"}));
  const Socket idle(port), half(port);
  half.write("POST / HTTP/1.1\r\n");  // keeps the program until the end of its patience

  // The lock holds the request until the program drains.
  std::thread lock([] { sql("BEGIN; LOCK TABLE chunks IN ACCESS EXCLUSIVE MODE; SELECT pg_sleep(2); COMMIT"); });
  const auto isLocked = [](const std::string& condition) {
    return sql("SELECT count(*) FROM pg_locks WHERE relation = 'chunks'::regclass AND " + condition) != "0";
  };
  EXPECT_TRUE(eventually([&] { return isLocked("granted AND mode = 'AccessExclusiveLock'"); }));
  auto answer = std::async(std::launch::async, [&] { return post(port, ChunkBody{.device = "second"}.text()).status; });
  EXPECT_TRUE(eventually([&] { return isLocked("NOT granted"); }));
  const auto begin = std::chrono::steady_clock::now();
  program.kill(SIGTERM);
  EXPECT_TRUE(eventually([&] { return !Socket(port).isOpen(); }));
  EXPECT_EQ(answer.get(), 200);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  lock.join();
  EXPECT_EQ(count("events"), 4);
}

TEST_F(Programs, DocumentsReachAllServersWithinASecond) {
  const DatabaseProxy withoutListen("LISTEN", "LISTIN");
  const int ports[] = {start().port(), start().port(), start({"--database", withoutListen.database()}).port()};
  const std::string file = home() + "/enabled.json";
  const auto put = [&](const std::string& text) {
    writeFileForTest(file, text);
    return Program({KELVO_SERVER_PROGRAM, "put", "enabled", app, file}, {}).wait();
  };
  EXPECT_EQ(put(R"({"enabled":1})"), 1);
  EXPECT_EQ(put(R"({"enabled":false})"), 0);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  for (const int port : ports) {
    const auto isOff = [&] {
      return get(port, "/v2/api/" + app + "/sdk/enabled-status").body.find("\"enabled\":false") != std::string::npos;
    };
    EXPECT_TRUE(eventually(isOff));
    EXPECT_LT(std::chrono::steady_clock::now(), end);
    EXPECT_NE(get(port, "/v2/api/other/sdk/enabled-status").body.find("\"enabled\":true"), std::string::npos);
  }
}

TEST_F(Programs, TLSServesTheCertificateThatAReloadFinds) {
  const std::string certificate = home() + "/cert.pem", key = home() + "/key.pem";
  const auto make = [&](const std::string& to) {
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=localhost"
        " -addext subjectAltName=DNS:localhost -keyout " +
        key + " -out " + to + " 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
  };
  make(certificate);
  Program program({KELVO_SERVER_PROGRAM, "--database", "dbname=none", "--listen", "127.0.0.1:0", "--admin",
                   "127.0.0.1:0", "--tls-cert", certificate, "--tls-key", key},
                  {});
  ASSERT_TRUE(program.waitForOutput("admin on")) << program.errors();
  const int port = std::atoi(program.output().c_str() + program.output().find(':') + 1);
  const auto ask = [&](const std::string& trusted) {
    return send(port, "/nothing", {}, {.method = "GET", .trustedCertificate = trusted}).status;
  };
  const std::string old = home() + "/old.pem";
  ASSERT_EQ(std::rename(certificate.c_str(), old.c_str()), 0);
  EXPECT_EQ(ask(old), 503) << "no documents were read yet";
  program.kill(SIGHUP);
  EXPECT_TRUE(program.waitForError("the certificate stays"));
  EXPECT_EQ(ask(old), 503);
  make(certificate);
  program.kill(SIGHUP);
  EXPECT_TRUE(eventually([&] { return ask(certificate) == 503; }));
  EXPECT_EQ(ask(old), 0);
}

}  // namespace
}  // namespace kelvo::test
