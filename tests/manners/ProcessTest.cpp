// The library's effect on its process: settings, symbols, child processes and exit.

#include <chrono>
#include <filesystem>
#include <regex>
#include <set>

#include "manners/Manners.h"

namespace kelvo::test {
namespace {

/// Returns an environment with a locale whose decimal separator is a comma.
Program::Environment localeWithComma() {
  const std::string place = home() + "/locales";
  std::filesystem::create_directories(place);
  const std::string command = "localedef -i de_DE -f UTF-8 " + place + "/de_DE.UTF-8";
  EXPECT_EQ(std::system(command.c_str()), 0) << "the Debian package locales is missing";
  return {{"LOCPATH", place}, {"LC_ALL", "de_DE.UTF-8"}};
}

TEST_F(Manners, NoSettingOfTheProcessChangesAndThePlugInAndTheHostsOwnSQLiteAndCurlGoOn) {
  machine.environment.merge(localeWithComma());
  const std::string defaults = library("Preferences/kelvo_manners_loader.plist"), real = "<real>2.5</real>";
  writeFileForTest(defaults, "<plist><dict><key>of the host</key>" + real + "</dict></plist>");
  auto process = run({KELVO_MANNERS_LOADER, KELVO_MANNERS_PLUGIN}, machine.environment);
  play(process, {kStarted, "go on"});
  for (const std::size_t chunks : {1U, 2U}) {
    ASSERT_TRUE(service.waitForChunks(chunks)) << process.output() << process.errors();
    process.writeLine("go on");
  }
  EXPECT_EQ(process.wait(), 0) << process.errors();
  const auto compared = linesAfter("compared ", process.output());
  ASSERT_EQ(compared.size(), 1u) << process.output();
  EXPECT_GT(std::stoi(compared[0]), 70);
  EXPECT_EQ(count(contentOf(defaults), real), 1u);
  EXPECT_EQ(count(contentOf(defaults), "klv_session_count"), 1u) << "the library has written the file";
  EXPECT_EQ(process.output(), "compared " + compared[0] + "\nKelvoiOSSDK finalizer\n");
  EXPECT_EQ(count(sent(), R"("price":12.5,)") + count(sent(), R"("price":12.5})"), count(sent(), R"("price":)"));
}

TEST(Symbols, TheSharedLibraryExportsItsPublicNamesAndNothingElse) {
  std::string headers;
  for (const auto& header : std::filesystem::directory_iterator(KELVO_PUBLIC_HEADERS)) {
    headers += contentOf(header.path());
  }
  std::set<std::string> classes;
  Program names({"/usr/bin/nm", "-D", "--defined-only", "--demangle", KELVO_LIBRARY}, {});
  ASSERT_EQ(names.wait(), 0) << names.errors();
  for (const auto& line : linesAfter("", names.output())) {
    std::string name = line.substr(std::min(line.size(), std::string("0123456789abcdef T ").size()));
    if (name == "KELVO_1") continue;  // the name of the version
    for (const std::string prefix : {"typeinfo for ", "typeinfo name for ", "vtable for "}) {
      if (name.rfind(prefix, 0) == 0) name.erase(0, prefix.size());
    }
    const std::string scope = "kelvo::";
    ASSERT_EQ(name.rfind(scope, 0), 0u) << line;
    name.erase(0, scope.size());
    name.resize(std::min(name.size(), name.find_first_of(":([@")));
    classes.insert(name);
    const std::regex declaration("KELVO_EXPORT [^;{]*\\b" + name + "(\\(| [{:]| final)");
    EXPECT_TRUE(std::regex_search(headers, declaration)) << line;
  }
  for (const char* name : {"KelvoSDK", "Application", "Value"}) EXPECT_EQ(classes.count(name), 1u) << name;
}

TEST(Symbols, TheLibraryForCExportsWhatItsHeaderDeclares) {
  std::set<std::string> exported, declared;
  Program names({"/usr/bin/nm", "-D", "--defined-only", KELVO_C_LIBRARY}, {});
  ASSERT_EQ(names.wait(), 0) << names.errors();
  for (const auto& line : linesAfter("", names.output())) exported.insert(line.substr(line.rfind(' ') + 1));
  const std::string header = contentOf(std::string(KELVO_PUBLIC_HEADERS) + "/kelvo.h");
  const std::regex declaration("KELVO_EXPORT_C [^(;]*[ *](kelvo_\\w+)\\(");
  for (std::sregex_iterator found(header.begin(), header.end(), declaration), end; found != end; ++found) {
    declared.insert((*found)[1].str() + "@@KELVO_C_1");
  }
  declared.insert("KELVO_C_1");  // the name of the version
  EXPECT_EQ(exported, declared);
  EXPECT_GT(declared.size(), 70U);
}

// --- Child processes

class Fork : public Manners, public testing::WithParamInterface<int> {};

TEST_P(Fork, WithoutExecMakesAChildInWhichCallsDoNothingAndTheParentGoesOn) {
  const auto children = static_cast<std::size_t>(GetParam());
  if (kSanitizer == "address" && children > 1) {
    GTEST_SKIP() << "in a child, this sanitizer waits for locks of threads that do not exist there";
  }
  auto parent = host();
  play(parent, {"start", kStarted, "/config"});
  if (kSanitizer == "thread") {
    parent.writeLine("pause 1000000");  // a busy thread may hold a lock of the sanitizer, which would hang the child
  } else if (children > 1) {
    parent.writeLine("burst 1000000 1500");  // so that any lock may be held at the time of a fork
  }
  parent.writeLine("fork " + std::to_string(children));
  const auto ended = [&] { return linesAfter("child ended with ", parent.output()); };
  EXPECT_TRUE(eventually([&] { return ended().size() == children; }));
  EXPECT_EQ(ended(), Texts(children, "5"));
  EXPECT_EQ(linesAfter("KelvoiOSSDK finalizer", parent.output()).size(), children);
  EXPECT_EQ(service.requests("/enabled-status").size(), 1u);
  play(parent, {"stop", "join", "Of the parent", "background"});
  EXPECT_TRUE(eventually([&] { return count(sent(), "Of the parent") > 0; }));
  end(parent);
  EXPECT_EQ(count(sent(), "Of the child"), 0u);
  for (const auto& file : std::filesystem::recursive_directory_iterator(documents(""))) {
    EXPECT_EQ(count(contentOf(file.path()), "Of the child"), 0u) << file.path();
  }
}

INSTANTIATE_TEST_SUITE_P(Children, Fork, testing::Values(1, 12));

TEST_F(Manners, AProgramThatTheHostStartsInheritsNoDescriptor) {
  auto parent = host();
  play(parent, {"run ls /proc/self/fd", "start", kStarted, "Event", "background"});
  ASSERT_TRUE(service.waitForChunks(1));
  const std::string before = parent.output();
  EXPECT_GE(linesAfter("", before).size(), 3u);
  parent.writeLine("run ls /proc/self/fd");
  end(parent);
  EXPECT_EQ(parent.output(), before + before + "KelvoiOSSDK finalizer\n");
}

// --- Exit

struct Way {
  const char* name;
  const char* hanging;  ///< a path that the service never answers, empty for none
  Texts lines;
};

class Exit : public Manners, public testing::WithParamInterface<Way> {};

TEST_P(Exit, EndsTheProcessInAboutASecondWithTheHostsStatusAndTheFarewell) {
  writeFileForTest(library("com.kelvo.SDK.config.json"), R"({"enable": true, "max_fg_chunk_send_time": 0.05})");
  if (*GetParam().hanging != '\0') service.answer(GetParam().hanging, Script::never());
  auto process = host();
  play(process, GetParam().lines);
  EXPECT_EQ(process.wait(), 33) << process.errors();
  using namespace std::chrono;
  const auto now = duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
  const auto begun = linesAfter("leaving at ", process.output());
  ASSERT_EQ(begun.size(), 1u);
  EXPECT_LE(now - std::stoll(begun[0]), kSanitizer.empty() ? 1300 : 4000);
  EXPECT_EQ(process.output(), "leaving at " + begun[0] + "\nKelvoiOSSDK finalizer\n");
}

INSTANTIATE_TEST_SUITE_P(
    Ways, Exit,
    testing::Values(Way{"main", "", {"start", "initialized!", "Event", "leave"}},
                    Way{"thread", "", {"start", "initialized!", "Event", "thread leave"}},
                    Way{"sink", "", {"sink leave", "start", "Event"}},
                    Way{"post", "", {"post leave", "start", "Event"}},
                    Way{"atOnce", "/enabled-status", {"start", "Event", "leave"}},
                    Way{"duringTheStart", "/enabled-status", {"start", "Event", "pause 100000", "leave"}},
                    Way{"upload", "/chunks", {"start", "initialized!", "Event", "background", "/chunks", "leave"}}),
    [](const auto& test) { return test.param.name; });

TEST_F(Manners, TheProcessMayEndAtAnyMomentWhileTLSIsBeingSetUp) {
  service.stop();
  machine.environment.merge(serveTLS(service, "IP:127.0.0.1", 2, true));
  const int rounds = kSanitizer.empty() ? 150 : 10;
  for (int round = 0; round < rounds; ++round) {
    const auto delay = std::to_string(round * 12'000 / rounds);
    auto process = host();
    play(process, {"start", "Event", "pause " + delay, "leave"});
    ASSERT_EQ(process.wait(), 33) << "after " << delay << " microseconds: " << process.errors();
  }
}

}  // namespace
}  // namespace kelvo::test
