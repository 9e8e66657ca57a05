#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "network/NetworkTest.h"
#include "support/Program.h"

namespace kelvo::test {
namespace {

using namespace std::chrono_literals;

/// A service that answers one request with raw bytes.
class RawService {
 public:
  /// `answer` writes to the connection. The destructor waits until it returns.
  explicit RawService(std::function<void(int connection)> answer) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    EXPECT_EQ(listen(listener_, 1), 0);
    EXPECT_EQ(getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length), 0);
    url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
    thread_ = std::thread([this, answer = std::move(answer)] {
      const int connection = accept(listener_, nullptr, nullptr);
      char request[4096];
      if (recv(connection, request, sizeof request, 0) > 0) answer(connection);
      close(connection);
    });
  }
  ~RawService() {
    thread_.join();
    close(listener_);
  }
  /// Returns false once the client has closed the connection.
  static bool say(int connection, const std::string& text) {
    return send(connection, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
  }
  std::string url;

 private:
  int listener_ = socket(AF_INET, SOCK_STREAM, 0);
  std::thread thread_;
};

Reply askedOf(const RawService& service, const KLVAnswerLimits& limits) {
  Replies replies;
  KLVHTTPSession session{1s};
  session.start({"POST", service.url, {}, "body", limits}, replies.collect());
  return replies.wait();
}

TEST(HostileService, AnAnswerEndsAsSoonAsItPassesItsLimit) {
  constexpr KLVAnswerLimits kLimits{100'000, 0, 1000};
  const std::string head = "HTTP/1.1 200 OK\r\n", some(1000, 'x');
  const struct {
    const char* name;
    std::string begin, part;
    int parts;  // 0: endless
  } cases[] = {{"announced", head + "Content-Length: 100001\r\n\r\n", "", 1},
               {"endless", head + "\r\n", some, 0},
               {"endless chunks", head + "Transfer-Encoding: chunked\r\n\r\n", "3e8\r\n" + some + "\r\n", 0},
               {"endless and compressed", head + "Content-Encoding: gzip\r\n\r\n", some, 0},
               {"endless redirect", "HTTP/1.1 307 Moved\r\nLocation: /page\r\nTransfer-Encoding: chunked\r\n\r\n",
                "3e8\r\n" + some + "\r\n", 0},
               {"as long as allowed", head + "Content-Length: 100000\r\n\r\n", some, 100}};
  for (const auto& [name, begin, part, parts] : cases) {
    SCOPED_TRACE(name);
    const RawService service([&begin = begin, &part = part, &parts = parts](int connection) {
      bool listens = RawService::say(connection, begin);
      for (int sent = 0; listens && (parts == 0 || sent < parts); ++sent) listens = RawService::say(connection, part);
      char end;
      while (recv(connection, &end, 1, 0) > 0) continue;  // until the client closes the connection
    });
    const Reply reply = askedOf(service, kLimits);
    EXPECT_EQ(succeeded(reply.response, reply.error), parts == 100);
    const auto error = reply.error.value_or(HTTPError()).localizedDescription;
    EXPECT_EQ(error, parts == 100 ? "" : "The answer is larger than 100000 bytes");
  }
}

TEST(HostileService, ASlowAnswerEndsAStartUpRequestInTimeAndAnUploadIfItIsTooSlow) {
  constexpr KLVAnswerLimits kStartUp{1 << 20, 1, 0}, kUpload{1 << 20, 1, 1000};
  const struct {
    const char* name;
    KLVAnswerLimits limits;
    std::size_t bytes;  // in each 50 ms, for 3 seconds
    bool succeeds;
  } cases[] = {{"start-up, slow", kStartUp, 1, false},
               {"start-up, fast", kStartUp, 1000, false},
               {"upload, slow", kUpload, 10, false},
               {"upload, fast enough", kUpload, 500, true}};
  for (const auto& [name, limits, bytes, succeeds] : cases) {
    SCOPED_TRACE(name);
    const auto begin = std::chrono::steady_clock::now();
    const RawService service([bytes = bytes](int connection) {
      bool listens = RawService::say(connection, "HTTP/1.1 200 OK\r\n\r\n");
      for (int sent = 0; listens && sent < 60; ++sent) {
        listens = RawService::say(connection, std::string(bytes, 'x'));
        std::this_thread::sleep_for(50ms);
      }
    });
    const Reply reply = askedOf(service, limits);
    EXPECT_EQ(succeeded(reply.response, reply.error), succeeds);
    EXPECT_EQ(std::chrono::steady_clock::now() - begin < 2900ms, !succeeds);
  }
}

TEST_F(NetworkTest, ALoopbackHostNeverGetsAProxyWhateverTheEnvironmentSays) {
  const std::string port = server.baseURL().substr(server.baseURL().rfind(':'));
  const std::string proxy = "http://127.0.0.1:1";
  std::size_t count = 0;
  const auto errorOf = [&](const std::string& url) {
    KLVHTTPSession session{1s};
    session.start({"GET", url, {}, {}}, replies.collect());
    return replies.wait(++count).error.value_or(HTTPError()).localizedDescription;
  };
  for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "HTTPS_PROXY", "ALL_PROXY"})
    setenv(name, proxy.c_str(), 1);
  for (const char* spared : {"", "example.com", "example.com, .internal ,10.0.0.0/8", "*", "192.0.2.9"}) {
    for (const char* name : {"no_proxy", "NO_PROXY"}) {
      SCOPED_TRACE(name + std::string("=") + spared);
      unsetenv("no_proxy");
      unsetenv("NO_PROXY");
      setenv(name, spared, 1);
      EXPECT_EQ(errorOf("http://127.0.0.1" + port + "/direct"), "");
      EXPECT_EQ(errorOf("http://localhost" + port + "/direct"), "");
      for (const std::string url : {"http://127.9.9.9:2/", "http://[::1]:2/", "https://127.0.0.1:2/"}) {
        EXPECT_EQ(errorOf(url).find("port 1 "), std::string::npos) << url;
      }
      if (*spared == '*') continue;
      EXPECT_NE(errorOf("https://192.0.2.1/").find("127.0.0.1 port 1 "), std::string::npos) << "others use the proxy";
    }
  }
}

// --- Certificates

/// Makes a self-signed certificate, `directory`/`name`.pem and `name`.key.
void makeCertificate(const std::string& directory, const std::string& name, const std::string& host, int days) {
  const std::string file = directory + "/" + name;
  const std::string command =
      "cd " + directory +
      " && openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=" + name +
      " -addext subjectAltName=" + host + " -keyout " + name +
      ".key -out request.pem 2>/dev/null && openssl x509 -req -days " + std::to_string(days) +
      " -in request.pem -signkey " + name + ".key -copy_extensions copyall -out " + name + ".pem 2>/dev/null";
  ASSERT_EQ(std::system(command.c_str()), 0);
}

/// Makes a bundle that names a file of authorities. Returns its directory.
std::string bundleTrusting(const std::string& file) {
  writeFileForTest(home() + "/bundle/Info.plist",
                   "<plist version=\"1.0\"><dict><key>KelvoCAFile</key><string>" + file + "</string></dict></plist>");
  return home() + "/bundle";
}

constexpr int kAccepted = 42, kRefused = 43;

/// Returns `kRefused` if the certificate is refused, and the curl code of any other error.
int outcomeOf(const std::string& url) {
  constexpr int kCertificateRefused = 60;  // a CURLcode
  Replies replies;
  KLVHTTPSession session;
  session.start({"POST", url, {}, "{}"}, replies.collect());
  const Reply reply = replies.wait();
  if (!reply.error) return kAccepted;
  return reply.error->code == kCertificateRefused ? kRefused : reply.error->code;
}

TEST(Certificates, MustBeValidForTheNameAndTheDayAndSignedByTheAuthority) {
  const std::string directory = home();
  const struct {
    const char* name;
    const char* host;
    int days;
    bool isTrusted;
    int outcome;
  } cases[] = {{"good", "IP:127.0.0.1", 2, true, kAccepted},
               {"othername", "DNS:service.example,IP:127.0.0.2", 2, true, kRefused},
               {"expired", "IP:127.0.0.1", -1, true, kRefused},
               {"unknown", "IP:127.0.0.1", 2, false, kRefused}};
  std::string trusted;
  for (const auto& each : cases) {
    makeCertificate(directory, each.name, each.host, each.days);
    if (each.isTrusted) trusted += contentOf(directory + "/" + each.name + ".pem");
  }
  writeFileForTest(directory + "/trusted.pem", trusted);
  setenv("KELVO_BUNDLE", bundleTrusting(directory + "/trusted.pem").c_str(), 1);
  for (const auto& each : cases) {
    collector::Server server;
    const std::string file = directory + "/" + each.name;
    ASSERT_NE(server.startTLS(file + ".pem", file + ".key"), 0);
    EXPECT_EQ(outcomeOf(server.baseURL() + "/x"), each.outcome) << each.name;
  }
}

TEST(Certificates, APrivateAuthorityReplacesThoseOfTheSystem) {
  if (const char* url = getenv("KELVO_TEST_SYSTEM_URL")) std::_Exit(outcomeOf(url));
  // In a namespace of its own, a child process sees our directory in place of the system's authorities.
  const std::string system = home() + "/system", mount = "mount --bind " + system + " /etc/ssl/certs";
  std::filesystem::create_directories(system);
  makeCertificate(system, "authority", "IP:127.0.0.1", 2);
  makeCertificate(home(), "private", "IP:127.0.0.1", 2);
  ASSERT_EQ(std::system(
                ("cd " + system + " && cp authority.pem ca-certificates.crt && openssl rehash . 2>/dev/null").c_str()),
            0);
  if (std::system(("unshare -Urm " + mount + " 2>/dev/null").c_str()) != 0) GTEST_SKIP() << "no namespaces here";
  collector::Server server;
  ASSERT_NE(server.startTLS(system + "/authority.pem", system + "/authority.key"), 0);
  const auto outcomeWith = [&](const std::string& bundle) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    Program child(
        {"/usr/bin/unshare", "-Urm", "sh", "-c", mount + " && exec " + self + " --gtest_filter=Certificates.APriv*"},
        {{"KELVO_TEST_SYSTEM_URL", server.baseURL() + "/x"}, {"KELVO_BUNDLE", bundle}});
    return child.wait();
  };
  EXPECT_EQ(outcomeWith(""), kAccepted);
  EXPECT_EQ(outcomeWith(bundleTrusting(home() + "/private.pem")), kRefused);
}

}  // namespace
}  // namespace kelvo::test
