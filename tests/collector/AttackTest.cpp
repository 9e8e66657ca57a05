#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <vector>

#include "CollectorTest.h"
#include "kelvo-collector/debug/Listings.h"
#include "kelvo-collector/http/Server.h"
#include "kelvo-collector/store/Retention.h"
#include "platform/Files.h"
#include "support/Program.h"

// What a client, a web page or another user of the machine does to harm a developer's collector.

namespace kelvo::test {
namespace {

using namespace collector;
using namespace std::chrono_literals;

/// A connection that sends exactly these bytes.
class RawClient {
 public:
  RawClient(int port, const std::string& bytes) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    isConnected_ = connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;
  ~RawClient() { ::close(socket_); }

  [[nodiscard]] bool isConnected() const noexcept { return isConnected_; }
  /// Sends zeros until the server closes; returns their number.
  std::size_t flood(std::size_t most) const {
    const std::vector<char> zeros(1 << 16, '0');
    std::size_t sent = 0;
    while (sent < most) {
      const ssize_t count = ::send(socket_, zeros.data(), zeros.size(), MSG_NOSIGNAL);
      if (count <= 0) break;
      sent += static_cast<std::size_t>(count);
    }
    return sent;
  }
  /// Returns everything that the server sends until it closes, or within `limit`.
  [[nodiscard]] std::string answer(std::chrono::seconds limit = 20s) const {
    const timeval wait{limit.count(), 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    std::string all;
    char bytes[4096];
    for (ssize_t count; (count = recv(socket_, bytes, sizeof bytes, 0)) > 0;) {
      all.append(bytes, static_cast<std::size_t>(count));
    }
    return all;
  }

 private:
  int socket_;
  bool isConnected_ = false;
};

using Clients = std::vector<std::unique_ptr<RawClient>>;

TEST(CollectorAttack, HalfOpenRequestsHoldNobodyUpForLong) {
  collector::Server server;
  const int port = server.start();
  Clients halfOpen;
  for (int i = 0; i < 300; ++i) halfOpen.push_back(std::make_unique<RawClient>(port, "GET / HTTP/1.1\r\nX: "));
  for (const auto& client : halfOpen) ASSERT_TRUE(client->isConnected());
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(RawClient(port, "").answer().rfind("HTTP/1.1 503 ", 0), 0U) << "no thread is free, so it does not wait";
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
  EXPECT_EQ(halfOpen.front()->answer().rfind("HTTP/1.1 408 ", 0), 0U);
  halfOpen.clear();
  CurlResult result;
  for (int attempt = 0; attempt < 100 && result.status != 200; ++attempt) {
    result = curl("--retry 0 " + server.baseURL() + "/debug/counts");
  }
  EXPECT_EQ(result.status, 200);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 15s);
}

TEST(CollectorAttack, AHalfTLSHandshakeAndASilentClientEnd) {
  const auto [certificate, key] = makeCertificate();
  collector::Server server;
  const int port = server.startTLS(certificate, key);
  const std::string hello("\x16\x03\x01\x02", 4);  // the first bytes of a ClientHello
  const RawClient half(port, hello), silent(port, "");
  const auto begin = std::chrono::steady_clock::now();
  static_cast<void>(half.answer());
  static_cast<void>(silent.answer());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 15s);
}

TEST(CollectorAttack, OversizedHeadsAndBodiesAreRefusedWhileTheyArrive) {
  collector::Server server;
  const int port = server.start();
  for (const char* head : {"GET /", "GET / HTTP/1.1\r\nX: ", "GET / HTTP/1.1\r\n"}) {
    const RawClient client(port, head);
    EXPECT_LT(client.flood(200 << 20), 16U << 20) << "the server reads 64 kB, the rest is in the system's buffers";
    EXPECT_EQ(client.answer().rfind("HTTP/1.1 431 ", 0), 0U) << head;
  }
  const std::string chunks = server.baseURL() + "/v2/api/shop/chunks", zeros = "head -c 70000000 /dev/zero | ";
  const std::string post = "curl -s -o /dev/null -w '%{http_code}' --data-binary @- " + chunks;
  for (const std::string& command :
       {zeros + post, zeros + post + " -H 'Transfer-Encoding: chunked'",
        zeros + "gzip -1 | " + post + " -H 'Content-Encoding: gzip'",
        zeros + "gzip -1 | " + post + " -H 'Content-Encoding: gzip' -H 'Transfer-Encoding: chunked'"}) {
    EXPECT_EQ(std::system((command + " --noproxy '*' | grep -qx 413").c_str()), 0) << command;
  }
  EXPECT_TRUE(server.requests().empty());
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
#ifndef __SANITIZE_ADDRESS__
  EXPECT_LT(usage.ru_maxrss, 400 << 10) << "kilobytes";
#endif
  const CurlResult next = test::post(chunks, kSampleChunk);
  EXPECT_EQ(next.status, 200);
}

TEST(CollectorAttack, KeptDataIsBoundedAndAResetFreesIt) {
  constexpr std::int64_t most = 4 << 20;
  Store store(":memory:", most);
  const auto add = [&](int number, const std::string& body, const char* application) {
    ReceivedRequest request;
    request.time = number;
    request.method = "POST";
    request.path = "/chunks";
    request.body = body;
    const auto of = application == nullptr ? std::nullopt : std::optional<std::string>(application);
    ASSERT_TRUE(store.add(request, of));
    ASSERT_LE(store.read([](Database& d) { return usedBytes(d); }), most);
  };
  for (int i = 1; i <= 30; ++i) {  // chunks with new names, values and users, among bodies that were refused
    std::string events;
    for (int k = 0; k < 500; ++k) {
      const std::string name = "name-" + std::to_string(i) + "-" + std::to_string(k % 20);
      events += (k == 0 ? "" : ", ") + event(name, R"({"value": ")" + name + R"("})");
    }
    add(i, std::string(300'000, 'x'), nullptr);
    add(i, ChunkOf{.app = events, .session = std::to_string(1700000000000 + i) + "-D1"}.text(), "shop");
  }
  const auto listed = [&](const std::string& session) {
    return store.read([&](Database& d) { return sessionDetails(d, session); });
  };
  EXPECT_TRUE(listed("1700000000030-D1"));
  EXPECT_FALSE(listed("1700000000001-D1"));
  ASSERT_FALSE(store.requests().empty());
  EXPECT_EQ(store.requests().back().sequence, 60);
  add(31, std::string(6'000'000, 'x'), nullptr);
  EXPECT_TRUE(store.requests().empty()) << "a body above the limit is not kept";
  ASSERT_TRUE(store.reset());
  EXPECT_LT(store.read([](Database& d) { return usedBytes(d); }), 300'000);
}

TEST(CollectorAttack, AStoreThatOthersCouldReadOrReplaceIsMadePrivateOrRefused) {
  const std::string path = home() + "/collector.db";
  for (const char* suffix : {"", "-wal", "-shm"}) {
    writeFileForTest(path + suffix, "");
    ASSERT_EQ(chmod((path + suffix).c_str(), 0644), 0);
  }
  {
    const Store store(path);
    for (const char* suffix : {"", "-wal"}) {
      struct stat facts {};
      ASSERT_EQ(stat((path + suffix).c_str(), &facts), 0);
      EXPECT_EQ(facts.st_mode & 0777U, 0600U) << suffix;
    }
  }
  std::filesystem::create_symlink(path, home() + "/link");
  EXPECT_THROW(Store(home() + "/link"), std::runtime_error);
  std::filesystem::create_symlink(home() + "/victim", home() + "/other-wal");
  EXPECT_THROW(Store(home() + "/other"), std::runtime_error);
  std::filesystem::create_directory(home() + "/shared");
  ASSERT_EQ(chmod((home() + "/shared").c_str(), 0777), 0);
  EXPECT_THROW(Store(home() + "/shared/collector.db"), std::runtime_error);
}

TEST(CollectorAttack, APrivateCollectorShowsItsDataToThoseWhoKnowTheToken) {
  const auto tests = std::filesystem::canonical("/proc/self/exe").parent_path();
  Program program({tests.parent_path() / "tools/kelvo-collector/kelvo-collector", "--port", "0", "--private", "--data",
                   home() + "/data"},
                  {});
  ASSERT_TRUE(program.waitForOutput("the token: "));
  ASSERT_TRUE(program.waitForOutput(".token\n"));
  const std::string output = program.output(), file = home() + "/data/collector.token";
  const std::string url = output.substr(13, output.find('\n') - 13);
  const std::string token = kelvo::readFile(file).value_or("").substr(0, 32);
  EXPECT_NE(output.find(url + "/#token=" + token + "\n"), std::string::npos) << output;
  struct stat facts {};
  ASSERT_EQ(stat(file.c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 0777U, 0600U);

  const struct {
    std::string arguments;
    int status;
  } cases[] = {{"/debug/counts", 401},
               {"/debug/counts?token=" + std::string(32, '0'), 401},
               {"/debug/counts -H 'Authorization: Bearer'", 401},
               {"/debug/enabled -X PUT -d '{\"enabled\": false}'", 401},
               {"/debug/counts?token=" + token, 200},
               {"/debug/counts -H 'Authorization: Bearer " + token + "'", 200},
               {"/", 200},
               {"/v2/api/a/sdk/enabled-status", 200}};
  for (const auto& c : cases) EXPECT_EQ(curl(url + c.arguments).status, c.status) << c.arguments;
  EXPECT_EQ(curl(url + "/v2/api/a/sdk/enabled-status").json()["enabled"], Value(true));
  program.kill(SIGTERM);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_FALSE(std::filesystem::exists(file));
}

}  // namespace
}  // namespace kelvo::test
