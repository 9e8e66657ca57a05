// libcurl, which the shared library loads at the first request.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "manners/Manners.h"

namespace kelvo::test {
namespace {

/// A file whose reader waits until the test closes it.
class SlowFile {
 public:
  explicit SlowFile(const std::string& path) : path_(path) {
    std::filesystem::remove(path);
    EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
  }
  ~SlowFile() { ::close(end_); }
  SlowFile(const SlowFile&) = delete;
  SlowFile& operator=(const SlowFile&) = delete;

  /// Blocks until a program reads the file. Returns false if none does.
  bool waitForReader() {
    return eventually([&] { return (end_ = ::open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0; });
  }
  /// Ends the file.
  void close() { ::close(std::exchange(end_, -1)); }

 private:
  std::string path_;
  int end_ = -1;
};

class Loading : public Manners {
 protected:
  /// Returns the path of a file that hosts on `machine` will find in place of libcurl.
  std::string pathOfOtherCurl() {
    const std::string directory = home() + "/libraries";
    std::filesystem::create_directories(directory);
    machine.environment["LD_LIBRARY_PATH"] = directory;
    return directory + "/" + KELVO_LIBCURL;
  }
  [[nodiscard]] static bool hasCurl(const Program& host) {
    return count(contentOf("/proc/" + std::to_string(host.id()) + "/maps"), "/libcurl") > 0;
  }
  void SetUp() override {
    if (*KELVO_LIBCURL == '\0') GTEST_SKIP() << "this build links libcurl";
    if (*KELVO_RPATH != '\0') GTEST_SKIP() << "libraries of " KELVO_RPATH " come before those of the test";
  }
};

TEST_F(Loading, NothingIsLoadedWhileNothingIsToBeSent) {
  const struct {
    const char* name;
    Program::Environment environment;
    Texts lines;
    bool isLoaded;
  } cases[] = {
      {"notStarted", {}, {}, false},
      {"switchedOff", {{"DO_NOT_TRACK", "1"}}, {"start", "Event", "background"}, false},
      {"undecided", {}, {"options id=shop consent=required", "Event", "background"}, false},
      {"denied", {}, {"options id=shop consent=required", "consent denied", "Event", "background"}, false},
      {"noEndpoint", {{"KELVO_SERVER_BASE_URL", ""}}, {"start", kStarted, "Event", "flush 20000"}, false},
      {"collecting", {}, {"start", kStarted, "Event", "flush 20000"}, true},
  };
  for (const auto& [name, environment, lines, isLoaded] : cases) {
    SCOPED_TRACE(name);
    moveToFreshHome(name);
    auto program = Hosts::host({{}, environment});
    play(program, lines);
    program.writeLine("run echo up");
    EXPECT_TRUE(program.waitForOutput("up"));
    EXPECT_EQ(hasCurl(program), isLoaded);
    end(program);
  }
}

TEST_F(Loading, WithoutLibcurlOneLineSaysSoAndALaterLaunchDelivers) {
  writeFileForTest(pathOfOtherCurl(), "");
  auto without = host();
  play(without, {"start", kStarted, "Kept", "background", "flush 60000", "flush 60000"});
  end(without);
  const std::string line = "<KLV ERROR> Nothing can be sent, and events are kept: ";
  ASSERT_EQ(linesAfter(line, without.errors()).size(), 1U) << without.errors();
  EXPECT_NE(linesAfter(line, without.errors())[0].find(KELVO_LIBCURL), std::string::npos);
  EXPECT_EQ(count(without.output(), "no service: The network could not be set up"), 2U) << without.output();
  EXPECT_TRUE(service.requests().empty());
  machine.environment.erase("LD_LIBRARY_PATH");
  auto later = host();
  play(later, {"start", kStarted, "background"});
  EXPECT_TRUE(eventually([&] { return count(sent(), "\"Kept\"") == 1; })) << later.errors();
  end(later);
}

/// The network thread holds the lock of the loader meanwhile.
TEST_F(Loading, AForkAndAnExitDuringTheLoadEndAndNoEventIsLost) {
  SlowFile library(pathOfOtherCurl());
  auto process = host();
  play(process, {"start", "Kept"});
  ASSERT_TRUE(library.waitForReader());
  process.writeLine("fork 1");
  EXPECT_TRUE(process.waitForOutput("child ended with 5")) << process.output();
  process.writeLine("leave");
  EXPECT_TRUE(process.waitForOutput("leaving at"));
  library.close();
  EXPECT_EQ(process.wait(), 33) << process.errors();
  machine.environment.erase("LD_LIBRARY_PATH");
  auto later = host();
  play(later, {"start", kStarted, "background"});
  EXPECT_TRUE(eventually([&] { return count(sent(), "\"Kept\"") == 1; })) << later.errors();
  end(later);
}

/// Hosts that link curl: the same library, or the one with another TLS library.
TEST_F(Loading, TheHostsOwnCurlGoesOnBesideOurs) {
  service.stop();
  machine.environment.merge(serveTLS(service, "IP:127.0.0.1", 2, true));
  std::size_t chunks = 0;
  for (const std::string library : {KELVO_LIBCURL, "libcurl-gnutls.so.4"}) {
    SCOPED_TRACE(library);
    if (::dlopen(library.c_str(), RTLD_LAZY) == nullptr) continue;  // not installed here
    moveToFreshHome(library);
    // The address sanitizer must be loaded first.
    if (kSanitizer != "address") machine.environment["LD_PRELOAD"] = library;
    auto process = host();
    const std::string request = "curl " + library + " " + service.baseURL() + "/debug/requests";
    play(process, {request, "start", kStarted, "Event", "background"});
    EXPECT_TRUE(service.waitForChunks(++chunks)) << process.errors();
    process.writeLine(request);
    process.writeLine("leave");
    EXPECT_EQ(process.wait(), 33) << process.errors();
    const Texts results = linesAfter("curl ", process.output());
    ASSERT_EQ(results.size(), 2U) << process.output();
    EXPECT_EQ(results[0], results[1]);
    EXPECT_EQ(results[0].rfind("0 libcurl/", 0), 0U) << results[0];
    EXPECT_EQ(count(results[0], "GnuTLS"), library == KELVO_LIBCURL ? 0U : 1U) << results[0];
  }
}

}  // namespace
}  // namespace kelvo::test
