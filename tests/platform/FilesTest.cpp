#include "platform/Files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "platform/Bundle.h"
#include "platform/Directories.h"
#include "platform/PropertyList.h"
#include "platform/UserDefaults.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

namespace fs = std::filesystem;

std::string inHome(const std::string& name) {
  return home() + "/" + name;
}

unsigned modeOf(const std::string& path) {
  return static_cast<unsigned>(fs::status(path).permissions());
}

// --- Files

TEST(Files, AnAtomicWriteReplacesTheWholeFileOrNothing) {
  const std::string directory = inHome("atomic"), path = directory + "/file";
  ASSERT_TRUE(makeDirectory(directory + "/a/b", true));
  EXPECT_EQ(modeOf(directory + "/a"), 0700U);
  ASSERT_TRUE(writeFileAtomically(path, std::string(1 << 20, 'x')));
  ASSERT_TRUE(writeFileAtomically(path, std::string_view("a\0b", 3)));
  EXPECT_EQ(modeOf(path), 0600U);

  FileError error;
  EXPECT_FALSE(writeFileAtomically(path + "/below-a-file", "x", &error));
  EXPECT_EQ(error, "Not a directory");
  EXPECT_FALSE(writeFileAtomically(directory + "/a", "over a directory"));
  EXPECT_FALSE(makeDirectory(path, true)) << "a file is in its place";
  EXPECT_EQ(readFile(path), std::string("a\0b", 3));
  EXPECT_EQ(std::distance(fs::directory_iterator(directory), {}), 2) << "no temporary file remains";
  EXPECT_TRUE(removeItem(directory));
  EXPECT_FALSE(removeItem(directory));
}

// --- Property lists

TEST(PropertyList, ParsesItsOwnOutput) {
  const Dictionary content{{"text", "  <&> \u00e9\n "},
                           {"negative", std::numeric_limits<std::int64_t>::min()},
                           {"flag", true},
                           {"real", 0.1},
                           {"bytes", Data{0, 255, 16}},
                           {"date", Date{std::chrono::seconds(1709627829)}},
                           {"list", Array{1, Array{}, Dictionary{{"k", ""}}}}};
  const auto back = parsePropertyList(serialisePropertyList(content));
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, Value(content));
}

// --- User defaults

TEST(UserDefaults, KeepValuesFromManyThreadsForTheNextStart) {
  const std::string path = inHome("defaults/p.plist");
  constexpr int kThreads = 4, kKeys = 50;
  {
    UserDefaults defaults(path);
    defaults.set("text", "12 monkeys");
    defaults.set("gone", 1);
    defaults.set("gone", nullptr);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&defaults, t] {
        for (int i = 0; i < kKeys; ++i) {
          defaults.set(std::to_string(t) + "." + std::to_string(i), i);
          EXPECT_TRUE(i % 10 != 0 || defaults.synchronize());
        }
      });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_TRUE(defaults.synchronize());
  }
  const UserDefaults defaults(path);
  EXPECT_EQ(defaults.string("text"), "12 monkeys");
  EXPECT_EQ(defaults.integer("text"), 12);
  EXPECT_EQ(defaults.string("3.49"), "49");
  EXPECT_EQ(defaults.string("gone"), std::nullopt);
  const auto content = readPropertyList(path);
  ASSERT_TRUE(content);
  EXPECT_EQ(content->size(), std::size_t{kThreads * kKeys + 1}) << "no key was lost";
}

TEST(UserDefaults, SetACorruptFileAsideAndStartEmpty) {
  const LogCapture log;
  const std::string path = inHome("bad.plist");
  const std::string cut = serialisePropertyList({{"klv_device_id", "x"}}).substr(0, 150);
  for (const std::string& content : {std::string(), std::string("<plist><array/></plist>"), cut}) {
    writeFileForTest(path, content);
    UserDefaults defaults(path);
    EXPECT_FALSE(defaults.contains("klv_device_id"));
    EXPECT_EQ(contentOf(path + ".corrupt"), content);
    defaults.set("a", 1);
    EXPECT_TRUE(defaults.synchronize());
  }
  EXPECT_EQ(log.count("the defaults begin empty"), 3U);
}

TEST(UserDefaults, RetryAFailedWriteAndReportItOnce) {
  const LogCapture log;
  writeFileForTest(inHome("blocked"), "a file where the directory should be");
  UserDefaults defaults(inHome("blocked/p.plist"));
  defaults.set("a", 1);
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_FALSE(defaults.synchronize()) << "still not written";
  EXPECT_EQ(defaults.integer("a"), 1);
  EXPECT_EQ(log.count("cannot be written"), 1U) << "reported once";
  ASSERT_TRUE(removeItem(inHome("blocked")));
  defaults.set("b", 1);  // reaches the file without a call of synchronize
  while (!fileExists(inHome("blocked/p.plist"))) std::this_thread::yield();
  EXPECT_EQ(UserDefaults(inHome("blocked/p.plist")).integer("a"), 1);
}

// --- Directories

TEST(Directories, ArePrivateAndFollowTheEnvironment) {
  EXPECT_EQ(Directories::library(), inHome("Library"));
  for (const auto& made : {Directories::library(), Directories::documents()}) EXPECT_EQ(modeOf(made), 0700U) << made;
  const struct {
    const char *kelvoHome, *dataHome, *home;
    std::string expected;
  } cases[] = {{"/k", "/x", "/h", "/k"},
               {"r/k", "/x", "/h", fs::current_path() / "r/k"},
               {"", "/x", "/h", "/x/kelvo/test_platform"},
               {"", "relative", "/h", "/h/.local/share/kelvo/test_platform"}};
  for (const auto& [kelvoHome, dataHome, userHome, expected] : cases) {
    ::setenv("KELVO_HOME", kelvoHome, 1);
    ::setenv("XDG_DATA_HOME", dataHome, 1);
    ::setenv("HOME", userHome, 1);
    EXPECT_EQ(Directories::homeFor(Bundle::main()), expected);
  }
  const std::string former = inHome("data/test_platform");  // as a former version has left it
  for (const char* made : {"/Documents", "/Library/Preferences"}) ASSERT_TRUE(makeDirectory(former + made, true));
  ::setenv("XDG_DATA_HOME", inHome("data").c_str(), 1);
  ::unsetenv("KELVO_HOME");
  EXPECT_EQ(Directories::homeFor(Bundle::main()), former);
  EXPECT_FALSE(Directories::chooseHome("/another")) << "the process uses a home already";
  EXPECT_TRUE(Directories::chooseHome(home()));
}

TEST(BundleIdentifier, NamesFilesOnlyIfItIsAFileName) {
  for (const std::string unusable : {"", ".", "..", "a/b", "../x", "tab\there", "line\nfeed"}) {
    writeFileForTest(home() + "/Info.plist", "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>" +
                                                 unusable + "</string></dict></plist>");
    EXPECT_EQ(Bundle(home(), "program").storageName(), "program") << unusable;
  }
}

}  // namespace
}  // namespace kelvo::test
