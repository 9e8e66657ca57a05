#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <thread>

#include "faults/Faults.h"

namespace kelvo::test {
namespace {

namespace fs = std::filesystem;

const std::string kDatabase = "kelvo-db/v1.0.0/com.kelvo.sessions.sqlite";

constexpr uid_t kNobody = 65534;
constexpr uid_t kUserWithoutEntry = 54321;  // not in the password file

bool isRoot() {
  return geteuid() == 0;
}

// --- Homes and databases

struct Breakage {
  const char* name;
  std::function<Machine()> strike;  ///< breaks the home after a good launch; returns the conditions of the next one
  const char* line;                 ///< a log line of the launch with the broken home
  bool isKept;                      ///< the event of that launch arrives
  int exitStatus = 0;
};

/// Makes the home read-only for everybody, or writable again. Permissions do not stop root, so root gives the files to
/// another user, and the test runs the host as that user.
void setWritable(bool writable) {
  const auto set = [writable](const fs::path& path) {
    const bool isDirectory = fs::is_directory(path);
    const uid_t owner = writable ? 0 : kNobody;
    EXPECT_TRUE(!isRoot() || chown(path.c_str(), owner, owner) == 0);
    fs::permissions(path, fs::perms(isDirectory ? (writable ? 0700 : 0500) : (writable ? 0600 : 0400)));
  };
  set(home());
  for (const auto& entry : fs::recursive_directory_iterator(home())) set(entry.path());
}

/// Returns the wrapper that runs a program as user `user`.
Texts asUser(uid_t user) {
  const std::string id = std::to_string(user);
  return {"/usr/bin/setpriv", "--reuid=" + id, "--regid=" + id, "--clear-groups"};
}

Machine overwriteDatabase(std::streamoff from, std::size_t length) {
  std::fstream file(documents(kDatabase), std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(from);
  file << std::string(length, '\xAB');
  return {};
}

const Breakage kBreakages[] = {
    {"readOnlyHome",
     [] {
       setWritable(false);
       return Machine{isRoot() ? asUser(kNobody) : Texts{}};
     },
     "cannot be written: Permission denied", false},
    {"homeBelowAFile",
     [] {
       writeFileForTest(home() + "/file", "");
       return Machine{{}, {{"KELVO_HOME", home() + "/file/home"}}};
     },
     "/file/home cannot be made: Not a directory", false, 3},
    {"noHome",
     [] {
       return Machine{asUser(kUserWithoutEntry), {{"KELVO_HOME", ""}, {"HOME", ""}, {"XDG_DATA_HOME", ""}}};
     },
     "there is no home directory: nothing can be stored (set KELVO_HOME or HOME)", false, 3},
    {"corruptHead", [] { return overwriteDatabase(0, 100); }, "<KLV ERROR> The database is corrupt (", true},
    {"corruptMiddle", [] { return overwriteDatabase(4096, fs::file_size(documents(kDatabase)) - 4096); },
     "The next start will set it aside", false, 3},
};

class BrokenHome : public Faults, public testing::WithParamInterface<Breakage> {};

TEST_P(BrokenHome, CostsWhatCannotBeKeptAndNothingElse) {
  const Breakage& broken = GetParam();
  if (std::string(broken.name) == "noHome" && !isRoot())
    GTEST_SKIP() << "only root can become a user without a password entry";
  ASSERT_EQ(launch().untilReady().log("Before").quit(), 0);
  ASSERT_EQ(stored("pragma journal_mode=delete"), Texts{"delete"}) << "the whole database is in one file";
  const Machine machine = broken.strike();
  auto faulty = launch(machine);
  faulty.untilReady().log("During");
  EXPECT_EQ(faulty.quit(), broken.exitStatus) << faulty.errors();
  EXPECT_GE(count(faulty.errors(), broken.line), 1U) << faulty.errors();
  setWritable(true);
  expectTheNextLaunchGoesOn();
  EXPECT_EQ(arrived("Before"), 1);
  EXPECT_EQ(arrived("During"), broken.isKept ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(Breakages, BrokenHome, testing::ValuesIn(kBreakages),
                         [](const auto& test) { return test.param.name; });

/// Locks the database as another program would, until the returned pointer is reset.
std::shared_ptr<sqlite3> lockDatabase() {
  sqlite3* database = nullptr;
  EXPECT_EQ(sqlite3_open(documents(kDatabase).c_str(), &database), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(database, "begin exclusive", nullptr, nullptr, nullptr), SQLITE_OK);
  return {database, sqlite3_close};
}

TEST_F(Faults, ALockThatIsHeldForAWhileCostsNothingAndOneThatIsNeverReleasedHoldsNoHostUp) {
  ASSERT_EQ(launch().untilReady().log("Before").quit(), 0);
  auto lock = lockDatabase();
  auto faulty = launch();
  faulty.log("Waits").log("Waits");
  ASSERT_TRUE(service.waitFor(2, "/enabled-status"));
  std::this_thread::sleep_for(std::chrono::milliseconds(700));  // the lock is held that long
  lock.reset();
  EXPECT_EQ(faulty.quit(), 0) << faulty.errors();
  EXPECT_EQ(arrived("Waits"), 2);
  EXPECT_EQ(count(faulty.errors(), "<KLV ERROR>"), 0U) << faulty.errors();

  lock = lockDatabase();
  auto stuck = host();
  play(stuck, {"start", kStarted, "During"});
  EXPECT_TRUE(eventually([&] { return count(stuck.errors(), "database is locked") > 0; })) << stuck.errors();
  const auto exitBegins = std::chrono::steady_clock::now();
  end(stuck);
  EXPECT_LT(std::chrono::steady_clock::now() - exitBegins, std::chrono::seconds(4));
  lock.reset();
  expectTheNextLaunchGoesOn();
}

// --- Files

std::string propertyList(const std::string& content) {
  return R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0">)" + content + "</plist>";
}

const std::map<std::string, std::string> kMistyped{
    {"com.kelvo.SDK.config.json",
     R"({"enable": true, "log_level": 7, "max_fg_chunk_send_time": 1e300, "service_paths": []})"},
    {"com.kelvo.SDK.enable.status.json", R"({"status": [0]})"},
    {"com.kelvo.db.user", R"({"id": [], "__additional_info__": 5, "__custom_info__": "{"})"},
    {"com.kelvo.db.eventsbuffer", R"([5, null, {"id": 7, "time": "x", "type": 9, "__additional_info__": []}])"},
    {"com.kelvo.SDK.clientevents", R"({"client_events": 1})"},
    {"bundle/Info.plist", propertyList("<dict><key>Kelvo</key><dict><key>Core</key><array/></dict></dict>")},
    {"Preferences/kelvo-log.plist",
     propertyList("<dict><key>klv_session_count</key><string>many</string><key>klv_device_id</key><true/>"
                  "<key>klv_ret_day</key><integer>-1</integer><key>klv_sdk_config_hash</key><array/></dict>")}};

void writeHuge(const std::string& path) {
  writeFileForTest(path, "");
  fs::resize_file(path, std::uintmax_t{65} << 20);  // the library reads 64 MiB at most
}

void writeNestedBeyondReason(const std::string& path) {
  const bool isPropertyList = path.ends_with(".plist");
  std::string content;
  for (int depth = 0; depth < 200'000; ++depth) content += isPropertyList ? "<array>" : "[";
  writeFileForTest(path, isPropertyList ? propertyList(content) : content);
}

TEST_F(Faults, BadFilesCountAsMissingAndAreReplaced) {
  const std::string defaults = library("Preferences/kelvo-log.plist");
  long launches = 0;
  for (const auto write : {writeHuge, writeNestedBeyondReason, +[](const std::string& path) {
                             writeFileForTest(path, kMistyped.at(path.substr(library("").size())));
                           }}) {
    for (const auto& [name, content] : kMistyped) write(library(name));
    auto faulty = launch({{}, {{"KELVO_BUNDLE", library("bundle")}}});
    faulty.untilReady().log("During");
    EXPECT_EQ(faulty.quit(), 0) << faulty.errors();
    EXPECT_EQ(arrived("During"), ++launches);
    const bool isUseless = launches < 3;
    EXPECT_EQ(count(faulty.errors(), "<KLV ERROR> KelvoiOSSDK failed to initialize - invalid"), isUseless ? 0U : 1U);
    EXPECT_EQ(fs::remove(defaults + ".corrupt"), isUseless);
    EXPECT_EQ(count(faulty.errors(), "kelvo-log.plist cannot be used"), isUseless ? 1U : 0U);
    expectTheNextLaunchGoesOn();
  }
}

// --- Full disks

TEST_F(Faults, ALimitOnTheSizeOfFilesIsAFullDiskAtEveryWriteInTurn) {
  const std::size_t least = kSanitizer == "thread" ? 100 : 0;  // the sanitizer writes a few bytes at its start
  bool kept = false;
  for (std::size_t limit = least; !kept; limit = limit * 3 / 2 + 1) {
    SCOPED_TRACE("files of " + std::to_string(limit) + " bytes");
    ASSERT_LT(limit, 10U << 20);
    moveToFreshHome("limit" + std::to_string(limit));
    const auto earlier = arrived("During");
    // The host's log lines go through a pipe, because the limit would apply to a file.
    auto faulty = host({{"/bin/bash", "-o", "pipefail", "-c", "prlimit --fsize=$0 \"$@\" 2>&1 | cat",
                         std::to_string(limit) + ":" + std::to_string(limit)}});
    faulty.writeLine("start");
    EXPECT_TRUE(eventually([&] { return count(faulty.output(), kStarted) > 0; }));
    play(faulty, {"During", "background"});
    faulty.closeInput();
    EXPECT_EQ(faulty.wait(), 0) << faulty.output();
    expectTheNextLaunchGoesOn();
    kept = arrived("During") > earlier;
    EXPECT_TRUE(kept || count(faulty.output(), "<KLV ERROR>") > 0) << faulty.output();
    if (HasFailure()) return;
  }
}

/// Tests whose home is on a disk of 4 MiB. Only the test and its child processes see this disk.
class SmallDisk : public Faults {
 protected:
  void SetUp() override {
    moveToFreshHome("disk");
    fs::create_directory(homeOfLaunches());
    const bool mounted = unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                         mount("none", homeOfLaunches().c_str(), "tmpfs", 0, "size=4m,mode=700") == 0;
    if (!mounted) GTEST_SKIP() << "this user may not mount a disk: " << std::strerror(errno);
  }
  void TearDown() override { umount2(homeOfLaunches().c_str(), MNT_DETACH); }

  [[nodiscard]] fs::path filler() const { return homeOfLaunches() + "/filler"; }
};

TEST_F(SmallDisk, ThatIsFullAtTheStartKeepsAllEventsOnceThereIsRoom) {
  for (const std::size_t room : {0U, 4096U, 8192U, 16384U, 36864U, 65536U, 131072U}) {
    SCOPED_TRACE(std::to_string(room) + " bytes are free");
    for (const auto& entry : fs::directory_iterator(homeOfLaunches())) fs::remove_all(entry.path());
    writeFileForTest(filler(), std::string(fs::space(homeOfLaunches()).available - room, 'x'));
    const auto earlier = arrived("Later");
    auto faulty = launch();
    faulty.untilReady();
    for (int i = 0; i < 10; ++i) faulty.log("During" + std::string(9000, 'x'));
    ASSERT_TRUE(faulty.waitForError("<KLV ERROR> KLVError "));
    fs::remove(filler());
    const int status = faulty.log("Later").quit();
    EXPECT_TRUE(status == 0 || status == 3) << status << faulty.errors();
    EXPECT_EQ(arrived("Later"), earlier + 1) << faulty.errors();
    EXPECT_EQ(stored("pragma integrity_check"), Texts{"ok"});
    EXPECT_EQ(launch().quit(), 0);
  }
}

}  // namespace
}  // namespace kelvo::test
