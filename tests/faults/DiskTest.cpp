#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "faults/Faults.h"
#include "support/FaultVFS.h"

namespace kelvo::test {
namespace {

namespace fs = std::filesystem;
using Operation = FaultVFS::Operation;

struct Failing {
  const char* name;
  Operation operation;
  bool forEver;
};

/// Launches whose disk fails: in each round, one operation later than in the round before.
class FailingDisk : public Faults, public testing::WithParamInterface<Failing> {
 protected:
  [[nodiscard]] Machine machine(int number) const {
    const char* given = std::getenv("ASAN_OPTIONS");
    return {{},
            {{"LD_PRELOAD", KELVO_TEST_DISK_LIBRARY},
             {"KELVO_TEST_DISK", std::to_string(static_cast<int>(GetParam().operation)) +
                                     (GetParam().forEver ? " 1 " : " 0 ") + std::to_string(number) + " " + report_},
             {"ASAN_OPTIONS", std::string(given != nullptr ? given : "") + ":verify_asan_link_order=0"}}};
  }
  [[nodiscard]] int failures() const { return std::stoi(contentOf(report_)); }

 private:
  const std::string report_ = home() + "/failures";
};

TEST_P(FailingDisk, LosesNoEventWithoutALogLine) {
  // Prepare a home that gives the next launch all kinds of work: a session to purge and a session to resend.
  moveToFreshHome("before");
  EXPECT_EQ(launch().untilReady().log("Delivered").quit(), 0);
  service.answer("/chunks", Script(503));
  EXPECT_EQ(launch().untilReady().log("Waiting").quit(), 3);
  service.answerNormally("/chunks");
  const fs::path before = homeOfLaunches();
  const int step = kSanitizer.empty() ? 1 : 5;  // a sanitizer makes launches slow
  for (int number = 1;; number += step) {
    SCOPED_TRACE("from operation " + std::to_string(number));
    ASSERT_LT(number, 1000) << "no launch was clean";
    moveToFreshHome("launches");
    fs::remove_all(homeOfLaunches());
    fs::copy(before, homeOfLaunches(), fs::copy_options::recursive);
    ASSERT_TRUE(service.store().reset());

    auto faulty = launch(machine(number), "1");
    faulty.untilReady().log("A").log("B").log("C");
    const int status = faulty.quit();
    EXPECT_TRUE(status == 0 || status == 3) << status;
    const int failed = failures();
    expectTheNextLaunchGoesOn();

    const bool silent = count(faulty.errors(), "<KLV ERROR>") == 0;
    for (const char* name : {"A", "B", "C"}) {
      EXPECT_LE(arrived(name), 1) << name << " is in two chunks";
      EXPECT_TRUE(!silent || arrived(name) == 1) << name << " was lost without a log line";
    }
    EXPECT_EQ(arrived("Waiting"), 1) << faulty.errors();
    const auto left = storedEvents();
    EXPECT_EQ(arrived("Delivered") + std::count(left.begin(), left.end(), "Delivered"), 0) << "resent, or not purged";
    EXPECT_TRUE(failed > 0 || number > 1) << "nothing was made to fail";
    if (HasFailure() || failed == 0) break;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Operations, FailingDisk,
    testing::Values(Failing{"openOnce", Operation::open, false}, Failing{"openForEver", Operation::open, true},
                    Failing{"readOnce", Operation::read, false}, Failing{"readForEver", Operation::read, true},
                    Failing{"writeOnce", Operation::write, false}, Failing{"writeForEver", Operation::write, true},
                    Failing{"mapOnce", Operation::mapSharedMemory, false}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace kelvo::test
