#include "journal/KLVJournal.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <thread>

#include "journal/JournalTest.h"
#include "journal/KLVJournalFormat.h"
#include "journal/KLVJournalReader.h"
#include "support/LogCapture.h"
#include "util/KLVDictionaryCoding.h"
#include "util/KLVLogger.h"

namespace kelvo::test {
namespace {

namespace fs = std::filesystem;

Dictionary nested(int levels) {
  Dictionary inner{{"leaf", true}};
  for (int i = 1; i < levels; ++i) inner = Dictionary{{"in", inner}};
  return inner;
}

/// Overwrites bytes of a file in place.
void patch(const std::string& path, std::size_t offset, const std::string& bytes) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(static_cast<std::streamoff>(offset));
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

TEST_F(JournalTest, EveryKindAndEveryValueComesBackAsItWas) {
  const Dictionary info{{"null", Value()},
                        {"flags", Array{true, false}},
                        {"numbers", Array{INT64_MIN, UINT64_MAX, -0.0, 1e300, 0.1F}},
                        {"texts", Array{"", std::string("a\0b", 3), "\u20ac", std::string(300, 'x')}},
                        {"bytes", Data{0, 255}},
                        {"date", Date(std::chrono::nanoseconds(-1234567891))},
                        {"", Dictionary{{"deep", nested(60)}, {"empty", Array()}}}};
  const Date when(std::chrono::nanoseconds(1700000000123456789));
  const Dictionary none;
  static_cast<void>(open());
  std::vector<std::uint64_t> numbers;
  for (int kind = 1; kind <= static_cast<int>(kKLVLastJournalKind); ++kind) {
    journal->setSession(kind == 1 ? "" : "1700-device" + std::to_string(kind));
    const std::optional<std::string_view> text = kind % 3 == 0 ? std::nullopt : std::optional<std::string_view>("name");
    const auto attributes = kind % 4 == 0 ? std::nullopt : codedForm(kind % 4 == 1 ? none : info);
    numbers.push_back(journal->write(static_cast<KLVJournalKind>(kind), static_cast<std::uint8_t>(kind + 200), when,
                                     text, attributes));
    EXPECT_EQ(journal->endOf(numbers.back()), numbers.back() + (kind % 4 > 1 ? 13 : 2) - (kind == 1 ? 1 : 0));
  }
  const auto entries = open();
  ASSERT_EQ(entries.size(), static_cast<std::size_t>(kKLVLastJournalKind));
  for (int kind = 1; kind <= static_cast<int>(kKLVLastJournalKind); ++kind) {
    const auto& [sequence, session, call] = entries[static_cast<std::size_t>(kind) - 1];
    EXPECT_GT(sequence, numbers.back()) << "a new file has new numbers";
    EXPECT_EQ(session, kind == 1 ? "" : "1700-device" + std::to_string(kind));
    EXPECT_EQ(static_cast<int>(call.kind), kind);
    EXPECT_EQ(call.flags, kind + 200);
    EXPECT_EQ(call.time, when);
    EXPECT_EQ(call.text, kind % 3 == 0 ? std::nullopt : std::optional<std::string>("name"));
    EXPECT_EQ(call.info.has_value(), kind % 4 != 0);
    if (!call.info || kind % 4 == 1) continue;
    EXPECT_EQ(*call.info, info);
    EXPECT_TRUE((*call.info)["date"].get<Date>() && (*call.info)["bytes"].get<Data>());
    EXPECT_NE((*call.info)["numbers"].asArray().value()[4].get<float>(), nullptr);
  }
}

TEST_F(JournalTest, WhatCannotBeWrittenIsCountedAndLeavesNothing) {
  EXPECT_EQ(write("closed"), 0U);
  EXPECT_EQ(journal->refused(), 0U);
  static_cast<void>(open());
  EXPECT_NE(write("deepest", codedForm(nested(64)).value()), 0U);
  EXPECT_EQ(codedForm(nested(65)), std::nullopt);
  EXPECT_EQ(write(std::string(kSmall / 4, 'x')), 0U) << "more than a quarter";
  EXPECT_NE(write(std::string(kSmall / 5, 'x')), 0U);
  EXPECT_EQ(journal->refused(), 1U);
  EXPECT_EQ(open().size(), 2U);
}

TEST_F(JournalTest, OnlyWhatIsUnfinishedComesBackInItsOrder) {
  static_cast<void>(open());
  const auto a = write("a"), b = write("b"), c = write("c"), d = write("d");
  EXPECT_TRUE(0 < a && a < b && b < c && c < d);
  journal->finish(b);
  journal->finish(b);
  journal->finish(0);
  journal->finish(d + 1000);
  KLVSequenceSet finished;
  finished.add(c);  // the database has it; the kill came before `finish`
  EXPECT_EQ(texts(open(finished)), (Texts{"a", "d"}));
  journal->addFreed(finished);
  EXPECT_TRUE(finished.contains(a) && finished.contains(d)) << "the earlier file's numbers are settled";
  EXPECT_EQ(finished.size(), 1U);
  EXPECT_GT(write("e"), d);
  EXPECT_EQ(texts(open(finished)), (Texts{"a", "d", "e"})) << "until they are finished";
  journal->addFreed(finished);
  EXPECT_EQ(finished.size(), 1U);
}

TEST_F(JournalTest, ADatabaseWithAnotherEpochTakesAllEntriesAndKeepsItsNumbers) {
  static_cast<void>(open());
  const auto a = write("a");
  static_cast<void>(write("b"));
  KLVSequenceSet finished;
  finished.add(1, a + 1000);
  const auto entries = open(finished, kEpoch + 1);
  EXPECT_EQ(texts(entries), (Texts{"a", "b"})) << "its finished numbers are those of another journal";
  for (const auto& entry : entries) EXPECT_FALSE(finished.contains(entry.sequence));
  finished.add(entries[0].sequence);  // stored, and killed before `finish`
  EXPECT_EQ(texts(open(finished, kEpoch + 1)), (Texts{"b"})) << "from then on they have the database's epoch";

  fs::remove(path());
  static_cast<void>(open(finished, kEpoch + 1));
  EXPECT_GT(write("c"), finished.largest()) << "a fresh journal beside an old database";
}

TEST_F(JournalTest, TheRingWrapsAndNeverOverwritesWhatIsUnfinished) {
  std::mt19937 random(1);
  static_cast<void>(open());
  std::vector<std::pair<std::uint64_t, std::string>> waiting;
  std::size_t refusals = 0;
  for (int i = 0; i < 20000; ++i) {
    const std::string text = std::to_string(i) + std::string(random() % 500, 'x');
    const auto number = write(text);
    if (number > 0) waiting.emplace_back(number, text);
    if (number == 0) ++refusals;
    for (std::size_t most = number == 0 ? 20 : 400; waiting.size() > most;) {
      const auto one =
          waiting.begin() + static_cast<std::ptrdiff_t>(random() % std::min<std::size_t>(waiting.size(), 10));
      journal->finish(one->first);
      waiting.erase(one);
    }
  }
  EXPECT_GT(refusals, 10U) << "the ring was full at times";
  EXPECT_EQ(journal->refused(), refusals);
  Texts expected;
  for (const auto& [number, text] : waiting) expected.push_back(text);
  EXPECT_EQ(texts(open()), expected);
}

TEST_F(JournalTest, LongUnfinishedEntriesMoveOnAndKeepTheirNumbers) {
  static_cast<void>(open());
  std::vector<std::uint64_t> screens;
  for (int i = 0; i < 64; ++i) screens.push_back(write("screen"));
  std::uint64_t last = 0;
  const auto runLaps = [&] {
    for (int i = 0; i < 5000; ++i) journal->finish(last = write("call"));
  };
  runLaps();
  EXPECT_EQ(journal->refused(), 0U);
  KLVSequenceSet freed;
  journal->addFreed(freed);
  EXPECT_FALSE(freed.contains(screens[0]) || freed.contains(screens[63]));
  EXPECT_TRUE(freed.contains(last - 1000)) << "they do not stop the ring";
  EXPECT_EQ(journal->endOf(screens[5]), screens[5] + 1);
  journal->finish(screens[0]);
  runLaps();
  EXPECT_EQ(open().size(), 63U) << "each once";

  const auto entries = open();
  for (int i = 0; i < 2; ++i) static_cast<void>(write("screen"));
  for (int i = 0; i < 5000; ++i) journal->finish(write("call"));
  EXPECT_GT(journal->refused(), 0U) << "65 of them stop it";
  for (const auto& entry : entries) journal->finish(entry.sequence);
  runLaps();
  EXPECT_EQ(open().size(), 2U);
}

TEST_F(JournalTest, DamageCostsTheDamagedEntryOnly) {
  const auto writeThree = [this] {
    fs::remove(path());
    static_cast<void>(open());
    const Dictionary info{{"key", std::string(100, 'v')}};
    for (const char* name : {"a", "b", "c"}) static_cast<void>(write(name, codedForm(info)));
  };
  writeThree();
  const std::string whole = contentOf(path());
  constexpr std::size_t kEntry = 3 * kJournalSlotBytes;
  const std::size_t second = kJournalHeaderBytes + kEntry;
  for (std::size_t offset = 0; offset < kEntry; ++offset) {
    std::string file = whole;
    file[second + offset] = static_cast<char>(file[second + offset] ^ 0x55);
    const auto contents = readJournal(file);
    const bool isBeyond = offset >= sizeof(KLVJournalEntryHeader) + 1 + 107;  // unused space of the last slot
    EXPECT_EQ(contents.unfinished.size(), isBeyond ? 3U : 2U) << offset;
    if (offset < sizeof(std::uint64_t)) continue;  // the slot may look like an unused one
    constexpr std::size_t kMagic = offsetof(KLVJournalEntryHeader, magic);
    const bool isEntry = offset < kMagic || offset >= kMagic + 4;
    EXPECT_EQ(contents.torn, isEntry && !isBeyond ? 1U : 0U) << offset;
  }
  patch(path(), second, std::string(1, static_cast<char>(whole[second] & ~3)));  // reserved, not committed
  EXPECT_EQ(texts(open()), (Texts{"a", "c"}));
  EXPECT_EQ(journal->torn(), 1U);

  writeThree();
  patch(path(), 0, std::string(kJournalHeaderBytes, '?'));
  EXPECT_EQ(texts(open()), (Texts{"a", "b", "c"})) << "without the header";
  EXPECT_EQ(texts(open()), (Texts{"a", "b", "c"})) << "a new one";
  writeThree();
  fs::resize_file(path(), second + kEntry + 70);
  EXPECT_EQ(texts(open()), (Texts{"a", "b"})) << "cut off";
  for (const std::string& garbage : {std::string(), std::string("KLVJRNL1"), std::string(200000, '\xff')}) {
    writeFileForTest(path(), garbage);
    EXPECT_TRUE(open().empty());
    EXPECT_TRUE(journal->isOpen());
  }
}

TEST_F(JournalTest, ErasureLeavesZerosAndLaterNumbers) {
  static_cast<void>(open());
  journal->setSession("1700-device");
  std::atomic<bool> isDone{false};
  std::thread writer([&] {
    for (bool finishes = false; !isDone; finishes = !finishes) {
      const auto number = write("secret");
      if (finishes) journal->finish(number);
    }
  });
  const auto before = write("secret");
  while (journal->refused() == 0) std::this_thread::yield();  // full
  journal->erase();
  isDone = true;
  writer.join();
  EXPECT_EQ(contentOf(path()).substr(kJournalHeaderBytes).find_first_not_of('\0'), std::string::npos);
  EXPECT_FALSE(journal->isOpen());
  EXPECT_EQ(write("late"), 0U);

  EXPECT_TRUE(journal->open(settings, kEpoch + 1, 0, {}).empty());
  const auto after = write("again");
  EXPECT_GT(after, before);
  journal->finish(before);
  EXPECT_EQ(texts(open({}, kEpoch + 1)), (Texts{"again"}));
}

TEST_F(JournalTest, AForkedChildWritesNothing) {
  static_cast<void>(open());
  const auto number = write("parent");
  const pid_t child = ::fork();
  if (child == 0) {
    const bool writes = write("child") != 0;
    journal->finish(number);
    journal->erase();
    ::_exit(writes ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(texts(open()), (Texts{"parent"}));
}

// --- Places

TEST_F(JournalTest, ThePrivateRuntimeDirectoryIsPreferredAndNoPlaceKeepsAStaleCopy) {
  const std::string runtime = home() + "/runtime";
  fs::create_directories(runtime);
  const auto withRuntime = [&](mode_t mode) {
    ::chmod(runtime.c_str(), mode);
    settings.runtimeDirectory = runtime;
  };
  withRuntime(0755);
  static_cast<void>(open());
  static_cast<void>(write("on disk"));
  struct stat facts {};
  ASSERT_EQ(::stat(path().c_str(), &facts), 0) << "others may look into the directory";
  EXPECT_EQ(facts.st_mode & 07777, 0600U);
  EXPECT_EQ(static_cast<std::uint64_t>(facts.st_blocks) * 512, kSmall) << "allocated";

  withRuntime(0700);
  EXPECT_EQ(texts(open()), (Texts{"on disk"}));
  EXPECT_EQ(fs::file_size(path()), kJournalHeaderBytes) << "the mark of the home";
  EXPECT_EQ(std::distance(fs::directory_iterator(runtime), {}), 1);
  KLVSequenceSet finished;
  finished.add(write("stored"));
  const auto hidden = write("in memory");

  settings.runtimeDirectory.clear();  // a launch outside of the login
  EXPECT_TRUE(open(finished).empty());
  const auto meanwhile = write("meanwhile");
  EXPECT_GT(meanwhile, hidden);
  journal->finish(meanwhile);
  journal->addFreed(finished);
  finished.add(meanwhile);
  EXPECT_FALSE(finished.contains(hidden));
  static_cast<void>(write("waits"));

  withRuntime(0700);
  EXPECT_EQ(texts(open(finished)), (Texts{"on disk", "in memory", "waits"})) << "both, in order";
  EXPECT_EQ(fs::file_size(path()), kJournalHeaderBytes);
  EXPECT_TRUE(removeJournalFiles(settings));
  EXPECT_TRUE(fs::is_empty(runtime));
}

TEST_F(JournalTest, ACallDoesNotOutliveItsHomeInTheRuntimeDirectory) {
  const std::string runtime = home() + "/orphan";
  fs::create_directories(runtime);
  ::chmod(runtime.c_str(), 0700);
  for (const bool isUsedOutside : {false, true}) {
    settings.runtimeDirectory = runtime;
    static_cast<void>(open());
    static_cast<void>(write("erased"));
    EXPECT_EQ(texts(open()), (Texts{"erased"})) << "the next launch of the login";

    settings.runtimeDirectory.clear();
    EXPECT_TRUE(removeJournalFiles(settings)) << "an erasure outside of the login";
    if (isUsedOutside) {
      EXPECT_TRUE(open().empty());
      static_cast<void>(write("later"));
    }
    settings.runtimeDirectory = runtime;
    EXPECT_EQ(texts(open()), isUsedOutside ? Texts{"later"} : Texts());
    EXPECT_TRUE(removeJournalFiles(settings));
  }
}

TEST_F(JournalTest, AFileThatCannotBeReadNowWaitsForALaterLaunch) {
  static_cast<void>(open());
  static_cast<void>(write("kept"));
  rlimit former{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
  const rlimit none{0, former.rlim_max};
  const LogCapture log;
  KLV_WARN("The log thread starts");  // a sanitizer needs descriptors for that
  ASSERT_TRUE(log.waitFor("The log thread starts"));
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const auto entries = open();
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &former), 0);
  EXPECT_TRUE(entries.empty());
  EXPECT_FALSE(journal->isOpen());
  EXPECT_TRUE(log.waitFor("<KLV ERROR> The journal " + path() + " cannot be read: Too many open files"));
  EXPECT_EQ(log.count("journal"), 1U) << "no other file takes its place";
  EXPECT_EQ(texts(open()), (Texts{"kept"}));
}

TEST_F(JournalTest, AFileThatANewerOneHasReplacedIsNotReadAgain) {
  static_cast<void>(open());
  static_cast<void>(write("once"));
  const std::string former = contentOf(path());
  settings.runtimeDirectory = home() + "/absorbing";
  fs::create_directories(settings.runtimeDirectory);
  ::chmod(settings.runtimeDirectory.c_str(), 0700);
  EXPECT_EQ(texts(open()), (Texts{"once"}));
  writeFileForTest(path(), former);  // a kill came before it was deleted
  ::chmod(path().c_str(), 0600);
  EXPECT_EQ(texts(open()), (Texts{"once"}));
}

TEST_F(JournalTest, ALinkIsNeitherReadNorWrittenThrough) {
  const LogCapture log;
  const std::string victim = home() + "/victim";
  writeFileForTest(victim, "untouched");
  for (const std::string& name : {path(), path() + ".new"}) {
    fs::create_symlink(victim, name);
    static_cast<void>(open());
    EXPECT_TRUE(journal->isOpen());
    EXPECT_EQ(contentOf(victim), "untouched");
  }
  EXPECT_TRUE(log.waitFor("<KLV ERROR> The journal " + path() + " cannot be read: Too many levels of symbolic links"));
}

TEST_F(JournalTest, AFullDiskIsOneLineAndLosesNothing) {
  static_cast<void>(open());
  static_cast<void>(write("a"));
  static_cast<void>(write("b"));
  rlimit former{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &former), 0);
  const rlimit tight{kSmall / 2, former.rlim_max};
  const LogCapture log;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
  const auto entries = open();
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &former), 0);
  ASSERT_EQ(texts(entries), (Texts{"a", "b"}));
  EXPECT_FALSE(journal->isOpen());
  EXPECT_EQ(write("lost"), 0U);
  EXPECT_TRUE(log.waitFor("<KLV ERROR> The journal is off, because its file cannot be made: File too large"));
  EXPECT_EQ(log.count("journal"), 1U);
  EXPECT_FALSE(fs::exists(path() + ".new"));
  KLVSequenceSet finished;
  finished.add(entries[0].sequence);
  EXPECT_EQ(texts(open(finished)), (Texts{"b"}));
}

TEST_F(JournalTest, WithoutASizeEarlierEntriesComeBackAndThenTheirRoomIsFree) {
  static_cast<void>(open());
  static_cast<void>(write("a"));
  settings.bytes = 0;
  const auto entries = open();
  ASSERT_EQ(texts(entries), (Texts{"a"}));
  EXPECT_FALSE(journal->isOpen());
  EXPECT_EQ(write("b"), 0U);
  journal->finish(entries[0].sequence);
  EXPECT_TRUE(open().empty());
  EXPECT_EQ(fs::file_size(path()), kJournalHeaderBytes);
}

}  // namespace
}  // namespace kelvo::test
