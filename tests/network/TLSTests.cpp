#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>

#include "network/NetworkTest.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

class TLS : public testing::Test {
 protected:
  /// A service whose certificate is good for `names` and signed by itself, and perhaps trusted by this process.
  void serve(const std::string& names, bool trusted) {
    const std::string certificate = home() + "/certificate.pem", key = home() + "/key.pem";
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=test"
        " -addext subjectAltName=" +
        names + " -keyout " + key + " -out " + certificate + " 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
    const std::string entry = trusted ? "<key>KelvoCAFile</key><string>" + certificate + "</string>" : "";
    writeFileForTest(home() + "/bundle/Info.plist", "<plist version=\"1.0\"><dict>" + entry + "</dict></plist>");
    setenv("KELVO_BUNDLE", (home() + "/bundle").c_str(), 1);
    ASSERT_NE(server.startTLS(certificate, key), 0);
  }

  /// Why a request failed; empty when it did not.
  std::string failure() {
    Replies replies;
    session.start({"POST", server.baseURL() + "/x", {}, "{}"}, replies.collect());
    const auto error = replies.wait().error;
    EXPECT_EQ(server.requests().empty(), error.has_value());
    return error ? error->localizedDescription : "";
  }

  collector::Server server;
  KLVHTTPSession session;
};

TEST_F(TLS, ThePrivateAuthorityIsTrusted) {
  serve("IP:127.0.0.1", true);
  EXPECT_EQ(failure(), "");
}

TEST_F(TLS, AnUnknownAuthorityIsNot) {
  serve("IP:127.0.0.1", false);
  EXPECT_NE(failure().find("certificate"), std::string::npos);
}

TEST_F(TLS, ACertificateOfAnotherHostIsRefused) {
  serve("DNS:elsewhere.example", true);
  EXPECT_NE(failure().find("target host name '127.0.0.1'"), std::string::npos);
}

/// A host that takes its time to end, after the TLS library took itself down.
[[gnu::destructor]] void endSlowly() {
  if (getenv("KELVO_TEST_EXIT_URL") != nullptr) usleep(100'000);
}

/// Keeps TLS busy for good: the end of every upload starts the next.
void keepUploading(KLVHTTPSession& session, const std::string& url, std::atomic<int>& answers) {
  session.start({"POST", url, {}, std::string(1 << 20, 'x')}, [&, url](auto, auto, auto) {
    ++answers;
    answers.notify_all();
    keepUploading(session, url, answers);
  });
}

TEST_F(TLS, TheProcessMayExitInTheMiddleOfUploads) {
  if (const char* url = getenv("KELVO_TEST_EXIT_URL")) {
    static KLVHTTPSession busy;
    static std::atomic<int> answers{0};
    alarm(20);
    for (int i = 0; i < 8; ++i) keepUploading(busy, url, answers);
    while (answers < 3) answers.wait(answers);
    std::filesystem::remove_all(home());
    std::exit(42);
  }
  serve("IP:127.0.0.1", true);
  server.answer("/upload", Script::cut());  // so that every upload begins with a handshake
  setenv("KELVO_TEST_EXIT_URL", (server.baseURL() + "/upload").c_str(), 1);
  for (int round = 0; round < 8; ++round) {
    const pid_t child = fork();
    if (child == 0) {
      execl("/proc/self/exe", "exit", "--gtest_filter=TLS.TheProcessMayExitInTheMiddleOfUploads", nullptr);
      _exit(1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42) << "status " << status;
  }
}

}  // namespace
}  // namespace kelvo::test
