#include "upload/KLVResendPolicy.h"

#include <gtest/gtest.h>

#include <optional>
#include <vector>

namespace kelvo::test {
namespace {

using Trigger = KLVResendPolicy::Trigger;
using std::chrono::seconds;

/// One event and what follows from it. `at` and `due` are seconds since the start.
struct Step {
  int at;
  Trigger trigger;
  std::optional<double> due;  ///< of the waiting chunks, nullopt if they are not due
  std::optional<int> retryAfter = std::nullopt;
  double random = 1;
};

struct Case {
  const char* name;
  std::vector<Step> steps;
};

const Case kCases[] = {
    {"the delay doubles from 30 seconds to 30 minutes",
     {{0, Trigger::failed, 30},
      {30, Trigger::failed, 90},
      {90, Trigger::failed, 210},
      {210, Trigger::failed, 450},
      {450, Trigger::failed, 930},
      {930, Trigger::failed, 1890},
      {1890, Trigger::failed, 3690},
      {3690, Trigger::failed, 5490}}},
    {"each delay is drawn from half to the whole",
     {{0, Trigger::failed, 15, {}, 0}, {20, Trigger::failed, 50, {}, 0}, {50, Trigger::failed, 140, {}, 0.5}}},
    {"further failures of a round do not move the time",
     {{0, Trigger::failed, 30}, {9, Trigger::failed, 30}, {10, Trigger::postponed, 30}}},
    {"an acceptance resends at once, and the delays begin again",
     {{0, Trigger::failed, 30}, {30, Trigger::failed, 90}, {40, Trigger::accepted, 40}, {41, Trigger::failed, 71}}},
    {"an acceptance without a waiting chunk resets only the delay",
     {{0, Trigger::failed, 30},
      {30, Trigger::failed, 90},
      {90, Trigger::acceptedAlone, std::nullopt},
      {91, Trigger::failed, 121},
      {96, Trigger::accepted, 96}}},
    {"FOREGROUND resends at once", {{0, Trigger::failed, 30}, {3, Trigger::foreground, 3}}},
    {"either of them at most every five seconds",
     {{0, Trigger::failed, 30},
      {1, Trigger::foreground, 1},
      {2, Trigger::accepted, 6},
      {3, Trigger::foreground, 6},
      {6, Trigger::accepted, 11},
      {12, Trigger::acceptedAlone, std::nullopt},
      {13, Trigger::failed, 43},
      {17, Trigger::foreground, 17}}},
    {"the service's time replaces the delay, and beats every trigger",
     {{0, Trigger::failed, 100, 100},
      {1, Trigger::failed, 100},
      {2, Trigger::failed, 100, 80},
      {50, Trigger::accepted, 100},
      {60, Trigger::foreground, 100},
      {61, Trigger::postponed, 100},
      {100, Trigger::failed, 130}}},
    {"the host's demand resends at once, but not before the service's time",
     {{0, Trigger::failed, 30},
      {1, Trigger::demanded, 1},
      {2, Trigger::demanded, 2},
      {3, Trigger::failed, 100, 97},
      {4, Trigger::demanded, 100}}},
    {"a time of no seconds is none", {{0, Trigger::failed, 30, 0}}},
    {"a postponed chunk becomes due without a failure",
     {{0, Trigger::failed, 100, 100}, {1, Trigger::acceptedAlone, std::nullopt}, {2, Trigger::postponed, 100}}},
};

TEST(ResendPolicy, Table) {
  const KLVResendPolicy::Instant start{};
  for (const Case& each : kCases) {
    KLVResendPolicy policy;
    int number = 0;
    for (const Step& step : each.steps) {
      const auto now = start + seconds(step.at);
      const auto beginRoundIfDue = [&] {
        if (policy.isDue(now)) policy = policy.afterStartOfRound(now);
      };
      beginRoundIfDue();
      const auto retryAfter = step.retryAfter ? std::optional(seconds(*step.retryAfter)) : std::nullopt;
      policy = policy.after(step.trigger, now, step.random, retryAfter);
      std::optional<double> due;
      if (policy.due) due = std::chrono::duration<double>(*policy.due - start).count();
      EXPECT_EQ(due, step.due) << each.name << ", step " << ++number;
      beginRoundIfDue();
    }
  }
}

TEST(ResendPolicy, NothingIsPostedBeforeTheServicesTime) {
  const KLVResendPolicy::Instant start{};
  const auto policy = KLVResendPolicy().after(Trigger::failed, start, 1, seconds(60));
  EXPECT_FALSE(policy.mayPost(start + seconds(59)));
  EXPECT_FALSE(policy.mayResend(start + seconds(59)));
  EXPECT_TRUE(policy.mayPost(start + seconds(60)));
}

TEST(ResendPolicy, EightFailuresInARowEndARound) {
  const KLVResendPolicy::Instant start{};
  KLVResendPolicy policy;
  for (int failure = 1; failure <= 8; ++failure) {
    EXPECT_TRUE(policy.mayResend(start));
    policy = policy.after(Trigger::failed, start, 1);
  }
  EXPECT_FALSE(policy.mayResend(start));
  EXPECT_TRUE(policy.mayPost(start)) << "a new chunk is always tried";
  EXPECT_TRUE(policy.after(Trigger::accepted, start, 1).mayResend(start));
  EXPECT_TRUE(policy.afterStartOfRound(start).mayResend(start));
}

}  // namespace
}  // namespace kelvo::test
