#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <stdexcept>
#include <thread>

#include "network/NetworkTest.h"
#include "network/RetryAfter.h"
#include "support/Program.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

using namespace std::chrono_literals;

class HTTPSession : public NetworkTest {
 protected:
  void start(const std::string& path) { session.start({"GET", server.baseURL() + path, {}, {}}, replies.collect()); }
  /// Sends a request with the body "body" to a service that answers `head`, which is the status and the headers, and
  /// no body.
  void requestAnsweredWith(const std::string& method, const std::string& head) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    EXPECT_EQ(listen(listener, 1), 0);
    EXPECT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    session.start({method, url, {}, "body"}, replies.collect());
    const int client = accept(listener, nullptr, nullptr);
    const std::string answer = "HTTP/1.1 " + head + "\r\nContent-Length: 0\r\n\r\n";
    char request[4096];
    EXPECT_GT(recv(client, request, sizeof request, 0), 0);
    EXPECT_GT(send(client, answer.data(), answer.size(), 0), 0);
    close(client);
    close(listener);
  }
  KLVHTTPSession session{2s};
};

/// The service's end of a connection.
class Peer {
 public:
  explicit Peer(int listener) : socket_(accept(listener, nullptr, nullptr)) {}
  ~Peer() { close(socket_); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  /// Returns the header fields, without the request line, and the body of the next request.
  std::pair<std::string, std::string> request() {
    std::string text;
    std::size_t size = std::string::npos;
    std::size_t body = 0;
    for (char piece[65536]; size == std::string::npos || text.size() < body + size;) {
      const auto count = recv(socket_, piece, sizeof piece, 0);
      if (count <= 0) break;
      text.append(piece, static_cast<std::size_t>(count));
      if (size != std::string::npos || text.find("\r\n\r\n") == std::string::npos) continue;
      body = text.find("\r\n\r\n") + 4;
      size = std::stoul(text.substr(text.find("Content-Length: ") + 16));
    }
    if (size == std::string::npos) return {};
    const auto fields = text.find("\r\n");
    return {text.substr(fields, body - fields), text.substr(body)};
  }
  void answer(const std::string& head) const {
    const std::string text = "HTTP/1.1 " + head + "\r\nContent-Length: 0\r\n\r\n";
    EXPECT_GT(send(socket_, text.data(), text.size(), 0), 0);
  }
  /// Waits for the next request, and ends the answers before the first.
  void endAnswers() const {
    char first = 0;
    EXPECT_EQ(recv(socket_, &first, 1, MSG_PEEK), 1);
    shutdown(socket_, SHUT_WR);
  }

 private:
  int socket_;
};

TEST_F(HTTPSession, SendsALargeBodyAgainAfterTheEndOfAKeptConnectionAndAfterARedirect) {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  socklen_t length = sizeof address;
  EXPECT_EQ(listen(listener, 2), 0);
  EXPECT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
  const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  const std::string authority = url.substr(7);
  std::string body;
  while (body.size() < 3000000) body += std::to_string(body.size());

  session.start({"POST", url, {}, "small"}, replies.collect());
  Peer first(listener);
  EXPECT_EQ(first.request().second, "small");
  first.answer("200 OK");
  replies.wait(1);
  session.start({"POST", url, {{"Content-Type", "text/plain"}}, SlicedText(body)}, replies.collect());
  first.endAnswers();
  static_cast<void>(first.request());
  Peer second(listener);
  const std::string fields = "\r\nHost: " + authority +
                             "\r\nUser-Agent: Kelvo/288\r\nAccept: */*\r\nContent-Type: text/plain\r\n" +
                             "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n";
  for (const char* answer : {"307 Temporary Redirect\r\nLocation: /moved", "200 OK"}) {
    const auto [itsFields, itsBody] = second.request();
    EXPECT_EQ(itsFields, fields);
    EXPECT_TRUE(itsBody == body) << answer;
    second.answer(answer);
  }
  EXPECT_EQ(replies.wait(2).response.value_or(HTTPResponse()).statusCode, 200);
  close(listener);
}

TEST_F(HTTPSession, PassesEveryOutcomeOnUnchanged) {
  const struct {
    const char* name;
    Script script;
    long status;  // 0 for an error
    std::string body;
  } cases[] = {{"success", {200, "{}"}, 200, "{}"},
               {"without a body", {204, ""}, 204, ""},
               {"failing service", {500, "{\"x\":1}"}, 500, "{\"x\":1}"},
               {"no answer", Script::never(), 0, ""},
               {"reset", Script::cut(), 0, ""},
               {"cut body", Script::cutShort(), 0, ""}};
  std::size_t count = 0;
  for (const auto& [name, script, status, body] : cases) {
    SCOPED_TRACE(name);
    server.answer("/case", script);
    start("/case");
    const Reply reply = replies.wait(++count);
    EXPECT_EQ(reply.response.value_or(HTTPResponse()).statusCode, status);
    EXPECT_EQ(reply.data.has_value(), status != 0);
    EXPECT_TRUE(reply.data.value_or("") == body);
    EXPECT_EQ(succeeded(reply.response, reply.error), status == 200);
    EXPECT_EQ(reply.error.value_or(HTTPError()).localizedDescription.empty(), status != 0);
  }
}

TEST_F(HTTPSession, OpensSixConnectionsAndLetsOtherRequestsWaitBeyondTheTimeLimit) {
  server.answer("/slow", Script::late(800ms));
  for (int i = 0; i < 20; ++i) start("/slow");
  EXPECT_TRUE(replies.wait(20).response);
  EXPECT_EQ(server.maximumConcurrent(), 6U);
  EXPECT_EQ(server.requests("/slow").size(), 20U);
}

TEST_F(HTTPSession, ABlockingOrThrowingCompletionDelaysNoOtherRequest) {
  std::promise<void> release;
  const auto begin = [&](HTTPCompletion completion) {
    session.start({"GET", server.baseURL() + "/x", {}, {}}, std::move(completion));
  };
  begin([&](auto, auto, auto) { release.get_future().wait(); });
  for (int i = 0; i < 5; ++i) begin([](auto, auto, auto) { throw std::runtime_error("oops"); });
  begin(nullptr);
  start("/next");
  EXPECT_TRUE(replies.wait().response);
  EXPECT_GE(session.unfinished(), 1U);
  release.set_value();
  while (session.unfinished() > 0) std::this_thread::yield();
  while (log.count("oops") < 5U) std::this_thread::yield();  // the line is written after the callback is unwound
  EXPECT_EQ(log.count("oops"), 5U);
}

TEST_F(HTTPSession, FollowsARedirectButNeverToCleartextNorWithoutTheBodyOfAPost) {
  const std::string page = server.baseURL() + "/page";
  server.answer("/page", {200, "<html>"});
  const std::string cleartext = "A redirect to cleartext was refused", lost = "A redirect from POST to GET was refused";
  const auto disabled = [](const std::string& scheme) {
    return "Protocol \"" + scheme + "\" not supported or disabled in libcurl";
  };
  const struct {
    std::string method, status, target, refusal;
  } cases[] = {{"GET", "301 Moved Permanently", page, ""},
               {"POST", "301 Moved Permanently", page, lost},
               {"GET", "302 Found", page, ""},
               {"POST", "302 Found", page, lost},
               {"GET", "302 Found", "http://192.0.2.1/", cleartext},
               {"GET", "302 Found", "//192.0.2.1/", cleartext},
               {"GET", "302 Found", "http://127.0.0.1@192.0.2.1/", cleartext},
               {"GET", "302 Found", "http://[::ffff:192.0.2.1]/", cleartext},
               {"GET", "302 Found", "file:///etc/passwd", disabled("file")},
               {"GET", "302 Found", "ftp://127.0.0.1/", disabled("ftp")},
               {"GET", "303 See Other", page, ""},
               {"POST", "303 See Other", page, lost},
               {"POST", "307 Temporary Redirect", page, ""},
               {"POST", "308 Permanent Redirect", page, ""},
               {"POST", "308 Permanent Redirect", "http://192.0.2.1/", cleartext}};
  std::size_t count = 0;
  for (const auto& [method, status, target, refusal] : cases) {
    SCOPED_TRACE(method + " " + status + " " + target);
    const auto followed = server.requests("/page").size();
    requestAnsweredWith(method, status + "\r\nLocation: " + target);
    const Reply reply = replies.wait(++count);
    EXPECT_EQ(succeeded(reply.response, reply.error), refusal.empty());
    EXPECT_EQ(reply.error.value_or(HTTPError()).localizedDescription, refusal);
    const auto requests = server.requests("/page");
    ASSERT_EQ(requests.size(), followed + (refusal.empty() ? 1 : 0));
    if (!refusal.empty()) continue;
    EXPECT_EQ(reply.response->url, target);
    EXPECT_EQ(requests.back().method + " " + requests.back().body, method == "POST" ? "POST body" : "GET ");
  }
}

TEST_F(HTTPSession, PassesTheWaitOnThatABusyServiceAsksFor) {
  using std::chrono::seconds;
  const Date now = std::chrono::sys_days{std::chrono::year(2024) / 2 / 29} + 23h + 59min + 30s + 500ms;
  const struct {
    const char* field;
    std::optional<seconds> wait;
  } fields[] = {{"120", 120s},
                {"0", 0s},
                {"3601", 3600s},
                {"99999999999999999999", 3600s},
                {"Fri, 01 Mar 2024 00:00:00 GMT", 30s},
                {"Thursday, 29-Feb-24 23:59:31 GMT", 1s},
                {"Thu, 29 Feb 2024 23:59:00 GMT", 0s},
                {"Fri, 31 Dec 9999 23:59:59 GMT", 3600s},
                {"", std::nullopt},
                {"-5", std::nullopt},
                {"2.5", std::nullopt},
                {"Soon", std::nullopt}};
  for (const auto& [field, wait] : fields) EXPECT_EQ(retryAfter(field, now), wait) << field;

  const struct {
    const char* head;
    std::optional<seconds> wait;
  } answers[] = {{"429 Too Many Requests\r\nretry-after: 7", 7s},
                 {"503 Service Unavailable\r\nRetry-After: 7 ", 7s},
                 {"503 Service Unavailable", std::nullopt},
                 {"500 Internal Server Error\r\nRetry-After: 7", std::nullopt}};
  std::size_t count = 0;
  for (const auto& [head, wait] : answers) {
    requestAnsweredWith("POST", head);
    EXPECT_EQ(replies.wait(++count).response->retryAfter, wait) << head;
  }
}

// --- TLS

class TLS : public testing::Test {
 protected:
  /// Starts a service with a self-signed certificate for this machine, which this process trusts.
  void serve() {
    const std::string certificate = home() + "/certificate.pem", key = home() + "/key.pem";
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=test"
        " -addext subjectAltName=IP:127.0.0.1 -keyout " +
        key + " -out " + certificate + " 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
    writeFileForTest(home() + "/bundle/Info.plist", "<plist version=\"1.0\"><dict><key>KelvoCAFile</key><string>" +
                                                        certificate + "</string></dict></plist>");
    setenv("KELVO_BUNDLE", (home() + "/bundle").c_str(), 1);
    ASSERT_NE(server.startTLS(certificate, key), 0);
  }

  collector::Server server;
};

/// Acts as a host that still runs for a while after OpenSSL has cleaned up.
[[gnu::destructor]] void endSlowly() {
  if (getenv("KELVO_TEST_EXIT_URL") != nullptr) usleep(100'000);
}

TEST_F(TLS, TheProcessMayExitInTheMiddleOfUploads) {
  if (const char* url = getenv("KELVO_TEST_EXIT_URL")) {
    static KLVHTTPSession busy;
    static std::atomic<int> answers{0};
    // Each upload starts the next one when it ends, so TLS stays in use.
    static const std::function<void()> keepUploading = [url] {
      busy.start({"POST", url, {}, SlicedText(std::string(1 << 20, 'x'))}, [](auto, auto, auto) {
        ++answers;
        answers.notify_all();
        keepUploading();
      });
    };
    alarm(20);
    for (int i = 0; i < 8; ++i) keepUploading();
    while (answers < 3) answers.wait(answers);
    std::filesystem::remove_all(home());
    std::exit(42);
  }
  serve();
  server.answer("/upload", Script::cut());  // every upload then begins with a handshake
  for (int round = 0; round < 8; ++round) {
    Program process({"/proc/self/exe", "--gtest_filter=TLS.TheProcessMayExitInTheMiddleOfUploads"},
                    {{"KELVO_TEST_EXIT_URL", server.baseURL() + "/upload"}});
    EXPECT_EQ(process.wait(), 42);
  }
}

}  // namespace
}  // namespace kelvo::test
