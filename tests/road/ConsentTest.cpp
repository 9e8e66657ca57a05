// Consent, from a real host's first call to the service and back.

#include <filesystem>
#include <set>
#include <sstream>

#include "road/Road.h"

namespace kelvo::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kFile = "/Library/com.kelvo.consent.json";
constexpr const char* kRequired = "<key>KelvoConsent</key><string>required</string>";
constexpr const char* kStart = "options id=shop consent=required level=info";

class ConsentRoad : public Road {
 protected:
  ConsentRoad() { moveToFreshHome("untouched"); }

  Program host(Program::Environment environment = {}, const Texts& wrapper = {}) const {
    environment.insert(kWithoutLeakCheck.begin(), kWithoutLeakCheck.end());
    return run({KELVO_MANNERS_HOST}, environment, wrapper);
  }
  static void play(Program& host, const Texts& lines) {
    for (const auto& line : lines) host.writeLine(line);
  }
  static void end(Program& host) {
    host.closeInput();
    EXPECT_EQ(host.wait(), 0) << host.errors();
  }
  [[nodiscard]] std::string consentFile() const { return contentOf(homeOfLaunches() + kFile); }
  [[nodiscard]] std::set<std::string> fileNames() const {
    std::set<std::string> found;
    for (const auto& path : files()) found.insert(fs::path(path).filename());
    return found;
  }
};

/// Returns the calls in the output of strace that leave a trace, take a lock, or start a thread.
Texts traces(const std::string& output) {
  Texts found;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    const bool isReading = line.find("O_RDONLY") != std::string::npos;
    const bool isOfLogLines = line.find("fcntl(") != std::string::npos && line.find("F_SETLK") == std::string::npos;
    if (!isReading && !isOfLogLines) found.push_back(line);
  }
  return found;
}

struct Undecided {
  const char* name;
  const char* plist;  ///< entries of the bundle's Info.plist, nullptr for no bundle
  Texts lines;
  bool untouched;
};

class StraceTest : public ConsentRoad, public testing::WithParamInterface<Undecided> {};

TEST_P(StraceTest, TheLibraryLeavesNoTraceBeforeTheUserDecides) {
  if (!kSanitizer.empty()) GTEST_SKIP() << "a sanitizer has a thread and files of its own, which strace would show";
  ASSERT_TRUE(fs::exists("/usr/bin/strace")) << "the Debian package strace is missing";
  const Undecided& given = GetParam();
  const std::string output = home() + "/strace";
  Program::Environment environment{{"KELVO_LOG", "info"}};
  if (given.plist != nullptr) environment["KELVO_BUNDLE"] = bundle("<key>Core</key><string>auto</string>", given.plist);
  auto process =
      host(environment, {"/usr/bin/strace", "-f", "-qq", "-o", output, "-e",
                         "trace=clone,clone3,fork,vfork,socket,socketpair,connect,open,openat,creat,mkdir,mkdirat,"
                         "mknod,mknodat,rename,renameat,renameat2,link,linkat,symlink,symlinkat,unlink,"
                         "unlinkat,truncate,ftruncate,memfd_create,eventfd2,pipe2,fcntl"});
  play(process, given.lines);
  end(process);
  const bool isUntouched = traces(contentOf(output)).empty();
  EXPECT_EQ(isUntouched, given.untouched) << contentOf(output) << process.errors();
  EXPECT_EQ(fs::exists(homeOfLaunches()), !given.untouched);
  EXPECT_EQ(service.requests("/").empty(), given.untouched);
  if (!given.untouched) return;
  EXPECT_EQ(count(process.output(), "no id 0 4 the user has not decided about consent yet"), 1U) << process.output();
  EXPECT_EQ(count(process.output(), "consent 0"), 1U);
  EXPECT_EQ(count(process.output(), "status 1 Calls are held"), 1U);
  EXPECT_EQ(count(process.errors(), "Waiting for the user's consent"), 1U) << "held lines are written at the end";
}

INSTANTIATE_TEST_SUITE_P(
    , StraceTest,
    testing::Values(Undecided{"options", nullptr, {"ready", "everyCall", kStart, "everyCall", "consent"}, true},
                    Undecided{"bundle", kRequired, {"everyCall", "consent", "ready"}, true},
                    Undecided{"unknownValue",
                              "<key>KelvoConsent</key><string>maybe</string>",
                              {"everyCall", "consent", "ready"},
                              true},
                    Undecided{"neverRequired", "", {"ready", "flush 20000"}, false}),
    [](const auto& test) { return test.param.name; });

TEST_F(ConsentRoad, ADenialWritesOneFileAndALaterHostObeysIt) {
  auto first = host();
  play(first, {"ready", kStart, "Event", "attributes secret", "consent denied"});
  ASSERT_TRUE(first.waitForOutput("status 2 The user has denied consent")) << first.output();
  play(first, {"Later", "flush 1000", "consent"});
  end(first);
  EXPECT_EQ(count(first.output(), "flushed 4 the user has denied consent"), 1U) << first.output();
  EXPECT_EQ(count(first.output(), "consent 2"), 1U);
  EXPECT_EQ(fileNames(), std::set<std::string>{"com.kelvo.consent.json"});
  EXPECT_EQ(consentFile(), R"({"consent":"denied"})");

  auto second = host();
  play(second, {"ready", "options id=shop", "Event"});
  ASSERT_TRUE(second.waitForOutput("status 2 The user has denied consent")) << second.output();
  end(second);
  writeFileForTest(homeOfLaunches() + kFile, "damaged");
  auto third = host();
  play(third, {"ready", "start", "Event"});
  ASSERT_TRUE(third.waitForOutput("status 2 ")) << third.output();
  end(third);
  EXPECT_EQ(count(third.errors(), "is damaged, which counts as a denial of consent"), 1U) << third.errors();
  EXPECT_EQ(service.requests("/").size(), 0U);
}

TEST_F(ConsentRoad, TheJournalFollowsTheDecisionWhereverItIs) {
  const std::string runtime = home() + "/runtime";
  fs::create_directory(runtime);
  fs::permissions(runtime, fs::perms::owner_all);
  auto process = host({{"XDG_RUNTIME_DIR", runtime}});
  play(process, {"ready", "options id=shop delivery=complete consent=required", "Early"});
  ASSERT_TRUE(process.waitForOutput("status 1 ")) << process.output();
  EXPECT_TRUE(fs::is_empty(runtime));
  play(process, {"consent granted"});
  EXPECT_TRUE(eventually([&] { return !fs::is_empty(runtime); }));
  play(process, {"Secret", "consent denied"});
  EXPECT_TRUE(eventually([&] { return fs::is_empty(runtime); }));
  end(process);
  EXPECT_EQ(fileNames(), (std::set<std::string>{"com.kelvo.consent.json", "com.kelvo.lock"}));
}

TEST_F(ConsentRoad, TheSwitchOfTheMachineBeatsAGrant) {
  auto process = host({{"DO_NOT_TRACK", "1"}});
  play(process, {"ready", "consent granted", kStart, "everyCall", "consent granted", "consent denied", "consent"});
  EXPECT_TRUE(process.waitForOutput("status 4 "));
  end(process);
  EXPECT_EQ(count(process.output(), "status 4 DO_NOT_TRACK"), 1U) << process.output();
  EXPECT_EQ(count(process.output(), "consent 2"), 1U);
  EXPECT_FALSE(fs::exists(homeOfLaunches()));
  EXPECT_EQ(service.requests("/").size(), 0U);
}

TEST_F(ConsentRoad, InspectShowsTheDecisionAndDescribesTheData) {
  const auto inspect = [&](Texts arguments, const std::string& plist = {}) {
    arguments.insert(arguments.begin(), KELVO_INSPECT_PROGRAM);
    auto program = run(arguments, {{"KELVO_BUNDLE", bundle("<key>Core</key><string>auto</string>", plist)}});
    program.wait();
    return program.output();
  };
  const struct {
    const char *plist, *file, *row;
  } cases[] = {
      {"", "", "ok  consent     not required by the bundle, undecided\n"},
      {kRequired, "", "?   consent     required by the bundle, undecided. Nothing is collected"},
      {kRequired, R"({"consent":"granted"})", "ok  consent     required by the bundle, granted\n"},
      {"", R"({"consent":"denied","deletions":[{"appId":"a","userId":"u","secret":"s"}]})",
       "?   consent     not required by the bundle, denied, 1 deletion request not answered yet. "},
  };
  for (const auto& [plist, file, row] : cases) {
    if (*file != '\0') writeFileForTest(homeOfLaunches() + kFile, file);
    const auto output = inspect({"--doctor"}, plist);
    EXPECT_EQ(count(output, row), 1U) << output;
  }
  EXPECT_EQ(count(inspect({"--describe"}), "device_info.id\n  what     a random id of this installation\n"), 1U);
  EXPECT_EQ(count(inspect({"--describe", "--json"}), R"("ip_address":{"what":)"), 1U);
}

}  // namespace
}  // namespace kelvo::test
