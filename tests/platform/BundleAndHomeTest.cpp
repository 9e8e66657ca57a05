// Files that another user may have prepared. Root plays both users; as any other user, the cases that need a second one
// are skipped.

#include "platform/Trust.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include "platform/Bundle.h"
#include "platform/Directories.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kOther = 65534;

void give(const std::string& path, uid_t user) {
  EXPECT_EQ(::lchown(path.c_str(), user, static_cast<gid_t>(user)), 0);
}

void setMode(const std::string& path, unsigned mode) {
  fs::permissions(path, static_cast<fs::perms>(mode));
}

// --- The home

struct HomeCase {
  const char* name;
  std::function<void(const std::string& home)> prepare;  ///< of a home as a former version has left it
  const char* problem;                                   ///< part of the reason, empty if the home is used
  bool needsRoot = false;
  bool asOther = false;  ///< the process runs as `kOther`
};

void moveAndLink(const std::string& path) {
  fs::rename(path, path + ".moved");
  fs::create_symlink(path + ".moved", path);
}

const HomeCase kHomes[] = {
    {"untouched", [](auto&) {}, ""},
    {"missing", [](auto& home) { fs::remove_all(home); }, ""},
    {"itselfLinked", moveAndLink, ""},
    {"readableByOthers",
     [](auto& home) {
       for (const char* each : {"", "/Library", "/Documents/kelvo-db"}) setMode(home + each, 0755);
     },
     ""},
    {"inAStickyDirectory", [](auto& home) { setMode(fs::path(home).parent_path(), 01777); }, ""},
    {"inAPublicDirectory", [](auto& home) { setMode(fs::path(home).parent_path(), 0777); }, "other users may replace "},
    {"below a link of another user",
     [](auto& home) {
       moveAndLink(home + "/Library");
       give(home + "/Library", kOther);
     },
     "/Library belongs to user 65534", true},
    {"linkedLibrary", [](auto& home) { moveAndLink(home + "/Library"); }, "/Library is a link"},
    {"linkedDatabase", [](auto& home) { moveAndLink(home + "/Documents/kelvo-db/db"); }, "/kelvo-db/db is a link"},
    {"linkedFile", [](auto& home) { fs::create_symlink("/etc/passwd", home + "/Library/com.kelvo.db.user"); },
     "/com.kelvo.db.user is a link"},
    {"publicHome", [](auto& home) { setMode(home, 0777); }, "other users may write to "},
    {"publicLibrary", [](auto& home) { setMode(home + "/Library", 01777); }, "/Library (mode 1777)"},
    {"publicDatabase", [](auto& home) { setMode(home + "/Documents/kelvo-db/db", 0666); }, "/db (mode 666)"},
    {"privateGroup", [](auto& home) { setMode(home, 0770); }, "", true},
    {"groupOfOthers",
     [](auto& home) {
       EXPECT_EQ(::chown(home.c_str(), 0, kOther), 0);
       setMode(home, 0770);
     },
     "(mode 770)", true},
    {"homeOfAnother", [](auto& home) { give(home, kOther); }, " belongs to user 65534", true},
    {"fileOfAnother", [](auto& home) { give(home + "/Library/Preferences/p.plist", kOther); },
     "/p.plist belongs to user 65534", true},
    {"homeOfRoot",
     [](auto& home) {
       for (const auto& entry : fs::recursive_directory_iterator(home)) give(entry.path(), kOther);
       setMode(home, 0755);
     },
     "", true, true},
    {"libraryOfRoot",
     [](auto& home) {
       give(home + "/Documents", kOther);
       setMode(home, 0755);
     },
     "/Library belongs to user 0", true, true},
};

/// Returns the problem of the home at `path` in a new process of its own, empty if there is none.
std::string problemOf(const std::string& path, bool asOther) {
  std::array<int, 2> ends{};
  EXPECT_EQ(::pipe(ends.data()), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    if (asOther && (::setresgid(kOther, kOther, kOther) != 0 || ::setresuid(kOther, kOther, kOther) != 0)) ::_exit(1);
    ::setenv("KELVO_HOME", path.c_str(), 1);
    const bool exists = fs::is_directory(Directories::library());
    std::string answer = Directories::problem().value_or("");
    if (answer.empty() != exists) answer = "a problem and no directory, or the reverse";
    ::_exit(::write(ends[1], answer.data(), answer.size()) == static_cast<ssize_t>(answer.size()) ? 0 : 1);
  }
  ::close(ends[1]);
  std::array<char, 1000> answer{};
  const ssize_t size = ::read(ends[0], answer.data(), answer.size());
  ::close(ends[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  return {answer.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
}

TEST(Trust, AHomeThatAnotherUserMayHavePreparedIsNotUsed) {
  setMode(home(), 0711);
  int number = 0;
  for (const auto& [name, prepare, problem, needsRoot, asOther] : kHomes) {
    if (needsRoot && ::geteuid() != 0) continue;
    SCOPED_TRACE(name);
    const std::string above = home() + "/" + std::to_string(++number), path = above + "/home";
    writeFileForTest(path + "/Library/Preferences/p.plist", "");
    writeFileForTest(path + "/Documents/kelvo-db/db", "");
    for (const auto& entry : fs::recursive_directory_iterator(above)) setMode(entry.path(), 0700);
    setMode(above, 0755);
    prepare(path);
    const std::string found = problemOf(path, asOther);
    EXPECT_EQ(found.empty(), *problem == '\0') << found;
    EXPECT_NE(found.find(problem), std::string::npos) << found;
  }
}

// --- The bundle

struct BundleCase {
  const char* name;
  std::function<void(const std::string& top)> prepare;
  bool isUsed;
  bool needsRoot = false;
};

const BundleCase kBundles[] = {
    {"untouched", [](auto&) {}, true},
    {"publicDirectoryOfTheProgram", [](auto& top) { setMode(top, 01777); }, false},
    {"publicBundle", [](auto& top) { setMode(top + "/p.bundle", 0777); }, false},
    {"publicObject", [](auto& top) { setMode(top + "/p.bundle/libkelvo-P.so", 0666); }, false},
    {"linkedBundle", [](auto& top) { moveAndLink(top + "/p.bundle"); }, true},
    {"linkToAPublicDirectory",
     [](auto& top) {
       const std::string object = top + "/p.bundle/libkelvo-P.so", shared = top + "/shared";
       fs::create_directory(shared);
       fs::rename(object, shared + "/P.so");
       fs::create_symlink(shared + "/P.so", object);
       setMode(shared, 0777);
     },
     false},
    {"ofAnotherUser", [](auto& top) { give(top + "/p.bundle/libkelvo-P.so", kOther); }, false, true},
    {"linkOfAnotherUser",
     [](auto& top) {
       moveAndLink(top + "/p.bundle/libkelvo-P.so");
       give(top + "/p.bundle/libkelvo-P.so", kOther);
     },
     false, true},
    {"directoryOfAnotherUser", [](auto& top) { give(top, kOther); }, false, true},
    {"privateGroup", [](auto& top) { setMode(top + "/p.bundle", 0775); }, true, true},
    {"groupOfOthers",
     [](auto& top) {
       EXPECT_EQ(::chown(top.c_str(), 0, kOther), 0);
       setMode(top, 0775);
     },
     false, true},
};

TEST(Trust, AnObjectOfTheBundleThatAnotherUserMayChangeIsNotUsed) {
  const LogCapture log;
  for (const auto& [name, prepare, isUsed, needsRoot] : kBundles) {
    if (needsRoot && ::geteuid() != 0) continue;
    SCOPED_TRACE(name);
    const std::string top = home() + "/" + name, path = top + "/p.bundle/libkelvo-P.so";
    writeFileForTest(path, "");
    for (const auto& entry : fs::recursive_directory_iterator(top)) setMode(entry.path(), 0755);
    prepare(top);
    const Bundle bundle(top + "/p.bundle", "p", top);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(bundle.open("libkelvo-P", "so").has_value(), isUsed);
    EXPECT_EQ(log.count("<KLV ERROR> " + path + " is not used: "), isUsed ? 0U : 1U) << "named once";
  }
}

TEST(Trust, RootAndTheEffectiveUserMayOwnAnObjectThatALoaderFindsEvenIfItsDirectoryIsMoved) {
  const std::string top = home() + "/shared/bin", path = top + "/libkelvo-P.so";
  writeFileForTest(path, "");
  for (const auto& directory : {home(), home() + "/shared", top}) setMode(directory, 0755);
  const bool asOther = ::geteuid() == 0 && ::seteuid(kOther) == 0;
  const auto object = Bundle(top, "p").open("libkelvo-P", "so");
  EXPECT_TRUE(!asOther || ::seteuid(0) == 0);
  ASSERT_TRUE(object);
  EXPECT_EQ(object->loadablePath(), path) << "the name that debuggers know";
  setMode(home() + "/shared", 0777);
  EXPECT_EQ(object->loadablePath(), "/proc/self/fd/" + std::to_string(object->file.get()));
}

}  // namespace
}  // namespace kelvo::test
