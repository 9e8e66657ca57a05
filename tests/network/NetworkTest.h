#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <condition_variable>
#include <cstdlib>
#include <map>
#include <thread>

#include "kelvo-collector/http/Server.h"
#include "network/HTTPTransfer.h"
#include "network/KLVConfigManager.h"
#include "network/KLVPostman.h"
#include "network/KLVSyncManager.h"
#include "platform/ThreadSafety.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"
#include "util/KLVUtilities+Cleaning.h"

namespace kelvo::test {

using collector::Script;

using Reply = HTTPTransfer::Outcome;

/// Collects the outcomes of requests, and checks that completions run on the library's pool threads.
class Replies {
 public:
  HTTPCompletion collect() {
    return [state = state_](auto data, auto response, auto error) {
      char thread[16] = {};
      pthread_getname_np(pthread_self(), thread, sizeof thread);
      EXPECT_EQ(std::string(thread).substr(0, 10), "kelvo.pool");
      EXPECT_NE(response.has_value(), error.has_value());
      const Lock lock(state->mutex);
      state->all.push_back({std::move(data), std::move(response), std::move(error)});
      state->changed.notify_all();
    };
  }

  /// Blocks until there are `count` outcomes, 20 seconds at most. Returns the last one.
  Reply wait(std::size_t count = 1) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    Lock lock(state_->mutex);
    while (state_->all.size() < count && lock.waitUntil(state_->changed, deadline)) {
    }
    EXPECT_EQ(state_->all.size(), count);
    return state_->all.empty() ? Reply() : state_->all.back();
  }

 private:
  struct State {
    Mutex mutex;
    std::condition_variable changed;
    std::vector<Reply> all GUARDED_BY(mutex);
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

/// The delegate of both managers.
class Controller final : public KLVConfigManagerDelegate, public KLVSyncManagerDelegate {
 public:
  std::string applicationIdentifier() override { return identifier; }
  void setAndSaveEnableSDKState(bool state) override { enabled = state; }
  std::shared_ptr<KLVDeviceInfo> deviceInfo() override { return device; }
  std::optional<Dictionary> getPIDMIDDictForType(const std::string& type) override {
    return records.contains(type) ? std::optional(records[type]) : std::nullopt;
  }
  void persistPIDMIDDict(const std::optional<Dictionary>& record, const std::string& type) override {
    if (KLVUtilities::isValidDictionary(record)) records[type] = *record;
  }
  void getDataFromURLPath(const std::optional<std::string>& path, HTTPCompletion completion) override {
    KLVPostman().getDataFromURLPath(*path, std::move(completion));
  }
  void getActionsFromURLPath(const std::optional<std::string>& path, HTTPCompletion completion) override {
    KLVPostman().getDataFromURLPath(*path, std::move(completion), kActionsLimits);
  }
  std::string identifier = "APP";
  std::optional<bool> enabled;
  const std::shared_ptr<KLVDeviceInfo> device = std::make_shared<KLVDeviceInfo>("");
  std::map<std::string, Dictionary> records;
};

/// Runs a service on this machine and makes it the endpoint of this process.
class NetworkTest : public testing::Test {
 protected:
  NetworkTest() {
    EXPECT_NE(server.start(), 0);
    setenv("KELVO_SERVER_BASE_URL", server.baseURL().c_str(), 1);
  }
  /// Blocks until every completion has returned, also for requests that a completion started.
  static void waitForTheEnd() {
    while (KLVPostman::sharedSession().unfinished() > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  collector::Server server;
  LogCapture log;
  Replies replies;
};

}  // namespace kelvo::test
