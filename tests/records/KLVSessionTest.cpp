#include "records/KLVSession.h"

#include <gtest/gtest.h>

#include "platform/Clock.h"
#include "platform/JSON.h"
#include "records/KLVEvents.h"
#include "util/KLVTimer.h"

namespace kelvo::test {
namespace {

using namespace std::chrono_literals;

/// Writes down what the session asks for.
class Session : public testing::Test, public KLVSessionDelegate {
 protected:
  void SetUp() override {
    KLVTimer::sharedTimer().setSDKStartTime(Clock::now());
    session_ = KLVSession::initWithLaunchType("normal", "D1", *this);
    EXPECT_EQ(std::exchange(calls_, ""), "+System +Chunk !Session ");
  }

  void goForeground() { send(KLVSystemEvent::SubType::foreground); }
  void send(KLVSystemEvent::SubType subType) {
    session_->onEvent(std::make_shared<KLVSystemEvent>(KLVEventType::system, subType));
  }
  [[nodiscard]] Value info(const char* key) const { return session_->additionalInfo()[key]; }

  void registerForEventWithType(KLVEventType type, const std::shared_ptr<KLVEventListener>& listener) override {
    if (listener != nullptr) calls_.append("+").append(stringFromType(type)).append(" ");
  }
  void deregisterForEventWithType(KLVEventType type, const std::shared_ptr<KLVEventListener>& listener) override {
    if (listener == session_) calls_.append("-").append(stringFromType(type)).append(" ");
  }
  void deRegisterIdentifer(const std::string& key, const std::shared_ptr<KLVEventListener>& listener) override {
    if (listener == session_) calls_ += "-" + key + " ";
  }
  void dispatchEvent(const std::shared_ptr<KLVEvent>& event) override { calls_ += "!" + event->identifier() + " "; }
  void saveSessionInfoWithIndentifier(const std::optional<std::string>& identifier) override {
    calls_ += "save " + identifier.value_or("nil") + " ";
  }
  void startSessionWithLaunchType(const std::optional<std::string>& launchType) override {
    calls_ += "start " + launchType.value_or("nil") + " ";
  }

  std::shared_ptr<KLVSession> session_;
  std::string calls_;
};

TEST_F(Session, BeginsWithTheAttributesOfItsLaunch) {
  session_->setSessionAttribute("gold", "plan");
  session_->setSessionAttribute(nullptr, "plan");
  session_->markSessionAsFatal();
  for (const char* key : {"launch_time_web", "total_duration", "unlisted"}) session_->setInfo(1, key);
  EXPECT_EQ(session_->identifier(), std::to_string(info("launch_time").asInt64()) + "-D1");
  EXPECT_TRUE(info("launch_time").isInteger());
  Dictionary upload = session_->jsonDictModified();
  for (const char* key : {"id", "launch_time", "launch_time_string", "is_first_session"}) {
    EXPECT_FALSE(upload[key].isNull()) << key;
    upload.remove(key);
  }
  EXPECT_EQ(jsonText(upload),
            R"({"launch_type":"normal","duration":0,"is_fatal":true,"process_name":"Undefined","is_background":false,)"
            R"("startup_time":0,"additional_info":{"plan":"gold"},"launch_time_web":1,"total_duration":1})");
  const auto rebuilt = objectFromJsonDict<KLVSession>(session_->jsonDict());
  EXPECT_EQ(jsonText(rebuilt->jsonDictModified()), jsonText(session_->jsonDictModified()));
  rebuilt->onEvent(std::make_shared<KLVChunkEvent>());
  rebuilt->stopSession();
  EXPECT_EQ(calls_, "") << "a session from storage asks for nothing";
}

TEST_F(Session, ANewOneStartsAfterMoreThan1800WholeSecondsAway) {
  Clock::advance(2000s);
  goForeground();
  EXPECT_EQ(calls_, "") << "never in the background";
  const std::pair<Clock::Duration, const char*> cases[] = {
      {1799s, ""}, {1800s, ""}, {1800500ms, ""}, {1801s, "start restart "}};
  for (const auto& [away, expected] : cases) {
    session_->updateEndTime();
    Clock::advance(away);
    send(KLVSystemEvent::SubType::background);
    EXPECT_EQ(calls_, "");
    goForeground();
    EXPECT_EQ(calls_, expected) << away.count();
  }
}

TEST_F(Session, TheDurationCountsTheForegroundOnly) {
  Clock::advance(10s);
  session_->updateEndTime();
  Clock::advance(600s);
  goForeground();
  Clock::advance(5s);
  session_->updateEndTime();
  ASSERT_NE(info("duration").get<double>(), nullptr);
  EXPECT_NEAR(info("duration").asDouble(), 15, 0.9);

  session_->setInfo(1999, "launch_time");
  session_->setInfo(2.5, "duration");
  session_->updateDuration(Date(11250ms));
  EXPECT_EQ(info("duration").asDouble(), 12.75) << "the launch counts in whole seconds";
}

TEST_F(Session, IsSavedAfterEveryChunkUntilItStops) {
  session_->onEvent(std::make_shared<KLVChunkEvent>());
  session_->onEvent(std::make_shared<KLVSurveyEvent>());
  EXPECT_EQ(std::exchange(calls_, ""), "save " + session_->identifier() + " ");
  session_->updateEndTime();
  session_->stopSession();
  EXPECT_EQ(std::exchange(calls_, ""), "-0___BACKGROUND -Chunk ");
  Clock::advance(4000s);
  session_->onEvent(std::make_shared<KLVChunkEvent>());
  goForeground();
  session_->stopSession();
  EXPECT_EQ(calls_, "") << "the bus may still hold it";
}

}  // namespace
}  // namespace kelvo::test
