#include "platform/Files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <thread>

#include "platform/Bundle.h"
#include "platform/Directories.h"
#include "platform/JSON.h"
#include "platform/PropertyList.h"
#include "platform/ServiceEndpoint.h"
#include "platform/UserDefaults.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"
#include "util/KLVLogger.h"

namespace kelvo::test {
namespace {

namespace fs = std::filesystem;

std::string inHome(const std::string& name) {
  return home() + "/" + name;
}

std::size_t filesIn(const std::string& directory) {
  return static_cast<std::size_t>(std::distance(fs::directory_iterator(directory), fs::directory_iterator()));
}

unsigned modeOf(const std::string& path) {
  struct stat facts {};
  return ::stat(path.c_str(), &facts) == 0 ? facts.st_mode & 07777U : 0U;
}

// --- Files

TEST(Files, AnAtomicWriteReplacesTheWholeFileOrLeavesItAlone) {
  const std::string directory = inHome("atomic");
  ASSERT_TRUE(makeDirectory(directory + "/a/b", true));
  EXPECT_EQ(modeOf(directory + "/a"), 0700U);
  const std::string path = directory + "/file";
  const std::string large(1 << 20, 'x');
  ASSERT_TRUE(writeFileAtomically(path, large));
  ASSERT_TRUE(writeFileAtomically(path, std::string_view("a\0b", 3)));
  EXPECT_EQ(readFile(path), std::string("a\0b", 3));
  EXPECT_EQ(modeOf(path), 0600U);

  FileError error;
  EXPECT_FALSE(writeFileAtomically(path + "/below-a-file", "x", &error));
  EXPECT_EQ(error, "Not a directory");
  EXPECT_FALSE(writeFileAtomically("/proc/kelvo", "x", &error));
  EXPECT_FALSE(writeFileAtomically(directory + "/a", "over a directory", &error));
  EXPECT_EQ(readFile(path), std::string("a\0b", 3));
  EXPECT_EQ(filesIn(directory), 2U) << "no temporary file stays behind";
  EXPECT_FALSE(makeDirectory(path, true)) << "a file is in its place";
  EXPECT_TRUE(removeItem(directory));
  EXPECT_FALSE(removeItem(directory));
}

TEST(Files, ReadsRegularFilesOnlyAndNeverWaits) {
  FileError error;
  EXPECT_FALSE(readFile(inHome("missing"), &error));
  EXPECT_EQ(error, "No such file or directory");
  EXPECT_FALSE(readFile(home(), &error));
  ASSERT_EQ(::mkfifo(inHome("pipe").c_str(), 0600), 0);
  EXPECT_FALSE(readFile(inHome("pipe"), &error));
  EXPECT_EQ(error, "Not a regular file");
  writeFileForTest(inHome("huge"), "");
  fs::resize_file(inHome("huge"), (64 << 20) + 1);
  EXPECT_FALSE(readFile(inHome("huge"), &error));
  EXPECT_EQ(error, "File too large");
}

// --- Property lists

TEST(PropertyList, ReadsBackWhatItWrote) {
  const Dictionary content{{"text", "  <&> \u00e9\n "},
                           {"empty", ""},
                           {"negative", std::numeric_limits<std::int64_t>::min()},
                           {"large", std::numeric_limits<std::int64_t>::max()},
                           {"flag", true},
                           {"real", 0.1},
                           {"bytes", Data{0, 255, 16}},
                           {"date", Date{std::chrono::seconds(1709627829)}},
                           {"list", Array{1, Array{}, Dictionary{{"k", "v"}}}}};
  const auto back = parsePropertyList(serialisePropertyList(content));
  ASSERT_TRUE(back && back->get<Dictionary>());
  EXPECT_EQ(description(*back), description(content));
  EXPECT_EQ(*back, Value(content));

  const std::uint64_t beyond = std::numeric_limits<std::uint64_t>::max() - 1;
  const auto unusual = parsePropertyList(serialisePropertyList({{"beyond", beyond}, {"null", nullptr}, {"a", 1}}));
  ASSERT_TRUE(unusual && unusual->get<Dictionary>());
  EXPECT_EQ((*unusual->get<Dictionary>())["beyond"].asUInt64(), beyond);
  EXPECT_EQ(unusual->get<Dictionary>()->size(), 2U);
}

/// A binary list of at most 256 bytes; `offsets` are those of its objects.
std::string binaryList(const std::string& objects, const std::string& offsets) {
  const std::string zeros(7, '\0');
  std::string list = "bplist00" + objects;
  const auto table = static_cast<char>(list.size());
  list += offsets + zeros.substr(1) + "\1\1";
  return list + zeros + static_cast<char>(offsets.size()) + zeros + '\0' + zeros + table;
}

TEST(PropertyList, SurvivesWhateverIsInTheFile) {
  const std::string xml = serialisePropertyList({{"k", Array{1, "t", Dictionary{{"d", Data{1, 2}}}}}, {"r", 1.5}});
  const std::string binary = binaryList(std::string("\xD1\1\2Qa\xA1\3\x09", 8), "\x8\xB\xD\xF");
  ASSERT_TRUE(parsePropertyList(binary));
  EXPECT_EQ(description(*parsePropertyList(binary)), R"({"a":[true]})");
  for (const std::string& good : {xml, binary}) {
    for (std::size_t i = 0; i < good.size(); ++i) {
      static_cast<void>(parsePropertyList(good.substr(0, i)));
      for (const char flip : {'\x01', '\x10', '\x80', '\xFF'}) {
        std::string bad = good;
        bad[i] = static_cast<char>(bad[i] ^ flip);
        static_cast<void>(parsePropertyList(bad));
      }
    }
  }
  for (const char* text : {"", "x", "bplist00", "<plist", "{\"a\":1}", "<plist><dict>"}) {
    std::string error;
    EXPECT_FALSE(parsePropertyList(text, &error)) << text;
    EXPECT_FALSE(error.empty());
  }
}

TEST(PropertyList, RefusesNestingThatWouldOverflowTheStack) {
  const auto repeated = [](const std::string& text, int times) {
    std::string result;
    for (int i = 0; i < times; ++i) result += text;
    return result;
  };
  EXPECT_TRUE(parsePropertyList("<plist>" + repeated("<array>", 100) + repeated("</array>", 100) + "</plist>"));
  EXPECT_TRUE(parsePropertyList("<plist><array>" + repeated("<array/><dict></dict>", 1000) + "</array></plist>"));
  const std::string deep = repeated("<array>", 500'000);
  for (const std::string& start : {std::string("<plist>"), std::string("<plist><!-- </array> -->")}) {
    EXPECT_FALSE(parsePropertyList(start + deep + repeated("</array>", 500'000) + "</plist>"));
  }
  EXPECT_FALSE(parsePropertyList("<plist>" + repeated("<dict><key>k</key>", 200'000)));

  EXPECT_FALSE(parsePropertyList(binaryList("\xA1\1\xA1", "\x8\x8"))) << "an array in itself";
  std::string doubling;  // 40 arrays that each hold the next one twice: 2^40 in all
  std::string offsets;
  for (int i = 1; i <= 40; ++i) {
    offsets += static_cast<char>(8 + doubling.size());
    doubling += std::string("\xA2") + static_cast<char>(i) + static_cast<char>(i);
  }
  offsets += static_cast<char>(8 + doubling.size());
  EXPECT_FALSE(parsePropertyList(binaryList(doubling + '\x09', offsets)));
}

// --- User defaults

TEST(UserDefaults, KeepWhatWasSetForTheNextStart) {
  const std::string path = inHome("defaults/p.plist");
  {
    UserDefaults defaults(path);
    defaults.set("text", "12 monkeys");
    defaults.set("count", 7);
    defaults.set("flag", true);
    defaults.set("gone", 1);
    defaults.set("gone", nullptr);
    ASSERT_TRUE(defaults.synchronize());
    EXPECT_EQ(modeOf(inHome("defaults")), 0700U);
  }
  const UserDefaults defaults(path);
  EXPECT_EQ(defaults.string("text"), "12 monkeys");
  EXPECT_EQ(defaults.integer("text"), 12);
  EXPECT_EQ(defaults.integer("count"), 7);
  EXPECT_EQ(defaults.string("count"), "7");
  EXPECT_TRUE(defaults.boolean("flag"));
  EXPECT_FALSE(defaults.contains("gone"));
  EXPECT_EQ(defaults.string("missing"), std::nullopt);
}

TEST(UserDefaults, LoseNoKeyWhenManyThreadsSetAtOnce) {
  const std::string path = inHome("many.plist");
  constexpr int kThreads = 4;
  constexpr int kKeys = 50;
  {
    UserDefaults defaults(path);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&defaults, t] {
        for (int i = 0; i < kKeys; ++i) {
          defaults.set(std::to_string(t) + "." + std::to_string(i), i);
          if (i % 10 == 0) {
            EXPECT_TRUE(defaults.synchronize());
          }
        }
      });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_TRUE(defaults.synchronize());
  }
  const auto content = parsePropertyList(contentOf(path));
  ASSERT_TRUE(content && content->get<Dictionary>());
  EXPECT_EQ(content->get<Dictionary>()->size(), std::size_t{kThreads * kKeys});
}

TEST(UserDefaults, SetAsideWhatIsNoPropertyListAndGoOn) {
  const LogCapture log;
  const std::string xmlArray = "<plist><array/></plist>";
  const std::string cut = serialisePropertyList({{"klv_device_id", "x"}}).substr(0, 150);
  std::size_t files = 0;
  for (const std::string& content : {std::string(), std::string("{}"), xmlArray, cut, std::string(3000, '\xff')}) {
    const std::string path = inHome("bad" + std::to_string(++files) + ".plist");
    writeFileForTest(path, content);
    UserDefaults defaults(path);
    EXPECT_FALSE(defaults.contains("klv_device_id"));
    EXPECT_EQ(contentOf(path + ".corrupt"), content);
    defaults.set("a", 1);
    EXPECT_TRUE(defaults.synchronize());
    EXPECT_EQ(UserDefaults(path).integer("a"), 1);
  }
  EXPECT_EQ(log.count("the defaults begin empty"), files);
}

TEST(UserDefaults, TryAgainWhenTheFileCouldNotBeWritten) {
  const LogCapture log;
  writeFileForTest(inHome("blocked"), "a file where the directory should be");
  UserDefaults defaults(inHome("blocked/p.plist"));
  defaults.set("a", 1);
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_FALSE(defaults.synchronize()) << "still not written";
  EXPECT_EQ(defaults.integer("a"), 1);
  EXPECT_EQ(log.count("cannot be written"), 1U) << "said once";
  ASSERT_TRUE(removeItem(inHome("blocked")));
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(UserDefaults(inHome("blocked/p.plist")).integer("a"), 1);
}

TEST(UserDefaults, ReachTheFileWithoutBeingAsked) {
  UserDefaults defaults(inHome("soon.plist"));
  defaults.set("a", 1);
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!fileExists(inHome("soon.plist")) && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
  EXPECT_EQ(UserDefaults(inHome("soon.plist")).integer("a"), 1);
}

// --- Bundle

TEST(Bundle, TakesItsNameFromTheIdentifierWhenThatIsAFileName) {
  const auto nameFor = [](const Value& identifier) {
    writeFileForTest(inHome("b/Resources/Info.plist"), serialisePropertyList({{"CFBundleIdentifier", identifier}}));
    return Bundle(inHome("b"), "program").storageName();
  };
  EXPECT_EQ(nameFor("com.example.app"), "com.example.app");
  for (const Value& unusable : {Value(""), Value("."), Value(".."), Value("../../etc"), Value(), Value(7)}) {
    EXPECT_EQ(nameFor(unusable), "program") << description(unusable);
  }
}

TEST(Bundle, FindsResourcesAndReportsAnInfoItCannotUse) {
  const LogCapture log;
  writeFileForTest(inHome("c/embedded.mobileprovision"), "x");
  writeFileForTest(inHome("c/Resources/note.txt"), "x");
  const Bundle quiet(inHome("c"), "program");
  EXPECT_EQ(quiet.pathForResource("embedded", "mobileprovision"), inHome("c/embedded.mobileprovision"));
  EXPECT_EQ(quiet.pathForResource("note", "txt"), inHome("c/Resources/note.txt"));
  EXPECT_EQ(quiet.pathForResource("other", "txt"), std::nullopt);
  EXPECT_EQ(log.count("Info.plist"), 0U) << "none is no problem";
  writeFileForTest(inHome("c/Info.plist"), "<plist><array/></plist>");
  EXPECT_TRUE(Bundle(inHome("c"), "program").infoDictionary().empty());
  EXPECT_EQ(log.count("Info.plist cannot be used: its root is no dictionary"), 1U);
}

// --- What is found out once a process: each case in a process of its own, which says what it saw and ends.

class OnceAProcess : public testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ::unsetenv("KELVO_HOME");
    ::unsetenv("XDG_DATA_HOME");
    root_ = inHome("once");
  }

  [[noreturn]] static void say(const std::string& text) {
    KLVLogger::drain(std::chrono::seconds(5));
    std::fprintf(stderr, "%s\n", text.c_str());
    fs::remove_all(home());
    std::_Exit(0);
  }

  /// The Library directory relative to `root_`, and whether both directories are there.
  [[noreturn]] void sayDirectories() const {
    const std::string library = Directories::library();
    const bool made = modeOf(library) == 0700 && modeOf(Directories::documents()) == 0700;
    say("library=" + fs::relative(library, root_).string() + (made ? " made" : " missing"));
  }

  std::string root_;
};

TEST_F(OnceAProcess, DirectoriesFollowTheEnvironment) {
  const auto expectLibrary = [this](std::map<std::string, std::string> environment, const std::string& expected) {
    EXPECT_EXIT(
        {
          fs::create_directories(root_);
          fs::current_path(root_);
          for (auto [name, value] : environment) {
            if (value.starts_with("~")) value = root_ + value.substr(1);
            ::setenv(name.c_str(), value.c_str(), 1);
          }
          sayDirectories();
        },
        testing::ExitedWithCode(0), "library=" + expected + " made");
  };
  expectLibrary({{"KELVO_HOME", "~/k/"}}, "k/Library");
  expectLibrary({{"KELVO_HOME", "relative/k"}}, "relative/k/Library");
  expectLibrary({{"KELVO_HOME", ""}, {"XDG_DATA_HOME", "~/x"}, {"HOME", "~/h"}}, "x/test_platform/Library");
  expectLibrary({{"XDG_DATA_HOME", "relative"}, {"HOME", "~/h"}}, "h/.local/share/test_platform/Library");
}

TEST_F(OnceAProcess, WithoutAnyHomeEveryWriteFailsAndOneLineSaysWhy) {
  if (::getuid() != 0) GTEST_SKIP() << "only root can become a user without a password entry";
  EXPECT_EXIT(
      {
        ::unsetenv("HOME");
        fs::remove_all(home());  // while this process still may
        if (::setuid(54321) != 0) std::_Exit(1);
        UserDefaults::standard().set("a", 1);
        const bool written =
            UserDefaults::standard().synchronize() || writeFileAtomically(Directories::inLibrary("f"), "x");
        say(written ? "written" : "nothing written");
      },
      testing::ExitedWithCode(0), "there is no home directory(.|\n)*nothing written");
}

TEST_F(OnceAProcess, BundleAndEndpointFollowTheEnvironment) {
  const auto sayEndpoint = [this] {
    writeFileForTest(root_ + "/Info.plist", serialisePropertyList({{"CFBundleIdentifier", "com.example"},
                                                                   {"KelvoServerBaseURL", "https://info.example/v1/"},
                                                                   {"KelvoCAFile", "/ca.pem"}}));
    ::setenv("KELVO_BUNDLE", root_.c_str(), 1);
    const auto& endpoint = ServiceEndpoint::shared();
    say("at " + endpoint.baseURL + " by " + endpoint.caFile + " for " + Bundle::main().storageName());
  };
  EXPECT_EXIT(sayEndpoint(), testing::ExitedWithCode(0), "at https://info.example/v1 by /ca.pem for com.example");
  EXPECT_EXIT(
      {
        ::setenv("KELVO_SERVER_BASE_URL", "http://127.0.0.1:8080//", 1);
        sayEndpoint();
      },
      testing::ExitedWithCode(0), "at http://127.0.0.1:8080 by /ca.pem");
}

}  // namespace
}  // namespace kelvo::test
