// Another user, or the user of a program with more rights, prepares files or the environment of a real process. Root
// plays both users; as any other user, the tests that need a second one are skipped.

#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "faults/Faults.h"

namespace kelvo::test {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kCaller = 65534;
const Texts kAsCaller{"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};

// --- A planted home

TEST_F(Faults, ALinkOrARowInAPlantedHomeDeletesNothingOutside) {
  const std::string victim = home() + "/victim";
  for (const char* sid : {"src", "../src", "1-src"}) {
    for (const bool linked : {false, true}) {
      SCOPED_TRACE(std::string(sid) + (linked ? " behind a link" : ""));
      moveToFreshHome(std::string("planted-") + fs::path(sid).filename().string() + (linked ? "L" : "") +
                      (*sid == '.' ? "P" : ""));
      ASSERT_EQ(launch().untilReady().log("Before").quit(), 0);
      ASSERT_EQ(stored("insert into chunkmeta (id, sid, cid, start, end, status) values ('c', '" + std::string(sid) +
                       "', 1, 1, 1, 1)"),
                Texts{});
      const std::string library = homeOfLaunches() + "/Library";
      writeFileForTest(victim + "/src/file", "precious");
      writeFileForTest(victim + "/1-src/file", "precious");
      writeFileForTest(homeOfLaunches() + "/src/file", "precious");
      writeFileForTest(library + "/src/file", "precious");
      if (linked) {
        fs::remove_all(library);
        fs::create_directory_symlink(victim, library);
      }
      auto attacked = launch();
      attacked.untilReady().log("During");
      EXPECT_EQ(attacked.quit(), linked ? 3 : 0) << attacked.errors();
      EXPECT_EQ(count(attacked.errors(), "<KLV ERROR> the home is not used: " + library + " is a link"), linked);
      for (const auto& kept : {victim + "/src", victim + "/1-src", homeOfLaunches() + "/src", library + "/src"}) {
        EXPECT_EQ(contentOf(kept + "/file"), "precious") << kept;
      }
    }
  }
}

// --- Programs with more rights than their caller

/// A copy of the host that the caller may run, with a directory of the caller's beside it.
class Rights : public Faults {
 protected:
  void SetUp() override {
    struct statvfs mount {};
    if (geteuid() != 0) GTEST_SKIP() << "only root can give a program rights";
    if (statvfs(home().c_str(), &mount) != 0 || (mount.f_flag & ST_NOSUID) != 0) GTEST_SKIP() << "no rights here";
    fs::permissions(home(), fs::perms(0711));
    fs::create_directory(place_);
    fs::copy_file(KELVO_MANNERS_HOST, program());
    fs::create_directory(callers());
    ASSERT_EQ(chown(callers().c_str(), kCaller, kCaller), 0);
  }

  [[nodiscard]] std::string program() const { return place_ + "/program"; }
  [[nodiscard]] std::string callers() const { return place_ + "/of-the-caller"; }
  [[nodiscard]] bool isUntouched() const { return fs::is_empty(callers()); }

  /// Runs the program as the caller until its end, with the caller's environment. Returns its errors.
  [[nodiscard]] std::string runToEnd(Program::Environment environment, const Texts& lines) {
    environment.merge(
        Program::Environment{{"KELVO_HOME", callers() + "/home"}, {"SSLKEYLOGFILE", callers() + "/keys"}});
    auto process = run({program()}, environment, kAsCaller);
    play(process, lines);
    end(process);
    return process.errors();
  }

 private:
  const std::string place_ = home() + "/place";
};

TEST_F(Rights, OfAnotherUserOrGroupKeepTheLibraryFromStarting) {
  if (kSanitizer == "address") GTEST_SKIP() << "such a process hides from the leak check, which then ends it";
  for (const auto mode : {04755U, 02755U}) {
    // A bundle of root would start the library at load.
    for (const bool hasBundle : {false, true}) {
      if (hasBundle) {
        writeFileForTest(program() + ".bundle/Info.plist",
                         "<plist><dict><key>Kelvo</key><dict><key>Core</key><string>a</string></dict></dict></plist>");
      }
      fs::permissions(program(), fs::perms(mode));
      const auto errors = runToEnd({}, {"start", "Event", "background", "start"});
      EXPECT_EQ(count(errors, "<KLV ERROR> The library does not start: "), 1U) << errors;
      EXPECT_EQ(count(errors, "\n"), 1U) << errors;
    }
    fs::remove_all(program() + ".bundle");
  }
  EXPECT_TRUE(isUntouched());
  EXPECT_EQ(service.numberOfConnections(), 0U);
}

TEST_F(Rights, OfFileCapabilitiesMakeTheLibraryIgnoreTheEnvironment) {
  const std::string setCapability = "PATH=$PATH:/usr/sbin:/sbin setcap cap_net_raw+ep " + program();
  collector::Server secure;
  const auto trusting = serveTLS(secure, "IP:127.0.0.1", 2, true);
  fs::permissions(home() + "/certificate.pem", fs::perms(0644));
  const std::string endpoint = "<key>KelvoServerBaseURL</key><string>" + secure.baseURL() + "</string>";
  fs::copy(bundle("", endpoint + "<key>KelvoCAFile</key><string>" + home() + "/certificate.pem</string>"),
           program() + ".bundle", fs::copy_options::recursive);
  const std::string keys = callers() + "/keys";
  /// Returns whether the program has asked the service of its bundle.
  const auto asks = [&](const Program::Environment& environment, Texts lines) {
    const auto before = secure.requests("/enabled-status").size();
    lines.insert(lines.end(), {"start", "Event", "pause 1000000"});
    static_cast<void>(runToEnd(environment, lines));
    return secure.requests("/enabled-status").size() > before;
  };
  const Program::Environment misleading{{"KELVO_SERVER_BASE_URL", "http://127.0.0.1:1"}};
  // Without more rights, the program obeys its environment: the checks below can fail.
  EXPECT_FALSE(asks(misleading, {}));
  EXPECT_TRUE(fs::exists(callers() + "/home/Library"));
  EXPECT_TRUE(asks({{"KELVO_SERVER_BASE_URL", ""}}, {}));
  EXPECT_NE(contentOf(keys), "");
  fs::remove_all(callers() + "/home");
  fs::remove(keys);

  if (std::system(setCapability.c_str()) != 0) GTEST_SKIP() << "file capabilities cannot be set here";
  EXPECT_TRUE(asks(misleading, {}));
  EXPECT_TRUE(isUntouched());
  EXPECT_TRUE(asks(misleading, {"curl"}));
  EXPECT_TRUE(fs::exists(keys)) << "the host's own curl obeys the variable";
  EXPECT_EQ(contentOf(keys), "");
}

// --- The limit on the size of files

TEST_F(Faults, ALimitOnTheSizeOfFilesKillsNoThreadOfTheHostThatReadsTheDatabase) {
  for (const bool isBlocked : {false, true}) {
    moveToFreshHome(isBlocked ? "blocked" : "open");
    auto limited = host();
    play(limited, {"start", kStarted, std::string("limit 65536 ") + (isBlocked ? "blocked" : "open"), "reads 300"});
    limited.closeInput();
    EXPECT_EQ(limited.wait(), 0) << limited.errors();
    const std::string state = isBlocked ? "blocked pending" : "free";
    EXPECT_EQ(linesAfter("SIGXFSZ ", limited.output()), (Texts{state, state}));
    EXPECT_GT(count(limited.errors(), "<KLV ERROR>"), 1U) << "no write has failed";
    expectTheNextLaunchGoesOn();
  }
}

}  // namespace
}  // namespace kelvo::test
