#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "CollectorTest.h"
#include "kelvo-collector/debug/Problems.h"
#include "kelvo-collector/http/Server.h"
#include "support/Program.h"

namespace kelvo::test {
namespace {

using collector::Script;
using collector::Store;

constexpr const char* kGone = "B46E7F11-74CF";   // the device that is erased
constexpr const char* kStays = "C57F8022-85D0";  // another device

/// Returns a chunk of a device. Its session's id contains that of the device, as the library's do, or of `other`.
std::string chunkOf(const std::string& device, ChunkOf chunk, const std::string& other = {}) {
  chunk.session = "17000-" + (other.empty() ? device : other);
  std::string text = chunk.text();
  const std::string id = R"("device_info":{"id":"D1")";
  return text.replace(text.find(id), id.size(), R"("device_info":{"id":")" + device + "\"");
}

class CollectorErasure : public testing::Test {
 protected:
  [[nodiscard]] CurlResult send(const std::string& method, const std::string& path, const std::string& body = {},
                                const std::string& secret = {}) const {
    const std::string header = secret.empty() ? "" : " -H 'X-Kelvo-Erase: " + secret + "'";
    return post(server.baseURL() + path, body, "-X " + method + header);
  }
  [[nodiscard]] int sendUser(const std::string& device, const std::string& secret,
                             const std::string& app = "shop") const {
    Dictionary body = *parseJSON(chunkOf(device, {}))->get<Dictionary>();
    body.set("sdk_version", "288");
    body.set("user_attributes", Dictionary{{"plan", "plan of " + device}});
    return send("POST", "/v2/api/user?appId=" + app, *jsonText(body), secret).status;
  }
  [[nodiscard]] int sendChunk(const std::string& device, const ChunkOf& chunk) const {
    return send("POST", "/v2/api/shop/chunks", chunkOf(device, chunk)).status;
  }
  [[nodiscard]] int erase(const std::string& device, const std::string& secret, const std::string& app = "shop") const {
    return send("DELETE", "/v2/api/user?appId=" + app + "&userId=" + device, {}, secret).status;
  }
  [[nodiscard]] Dictionary get(const std::string& path) const { return send("GET", path).json(); }
  [[nodiscard]] std::string text(const std::string& path) const { return send("GET", path).body; }

  /// Returns the bytes of all files of the store.
  static std::string storedBytes() {
    std::string all;
    for (const auto& file : std::filesystem::directory_iterator(home() + "/data")) {
      std::ifstream stream(file.path(), std::ios::binary);
      all.append(std::istreambuf_iterator<char>(stream), {});
    }
    return all;
  }

  /// Returns a new directory, in which no earlier test has left a file.
  static std::string newDirectory() {
    std::filesystem::remove_all(home() + "/data");
    std::filesystem::create_directory(home() + "/data");
    return home() + "/data";
  }

  Store store{newDirectory() + "/collector.db"};
  collector::ServiceState state;
  collector::Server server{store, state};
  const int port = server.start();
};

TEST_F(CollectorErasure, OnlyTheFirstSecretOfADeviceErasesIt) {
  EXPECT_EQ(sendUser("A", "right"), 200);
  EXPECT_EQ(sendUser("A", "later"), 200);
  EXPECT_EQ(sendUser("A", "theirs", "other"), 200);
  EXPECT_EQ(sendUser("old", ""), 200);
  EXPECT_EQ(sendChunk("late", {}), 200);
  EXPECT_EQ(send("POST", "/v2/api/shop/chunks", chunkOf("late", {.number = 2}), "of a chunk").status, 200);
  const struct {
    const char *query, *secret;
    int status;
  } cases[] = {{"userId=A", "right", 400},
               {"appId=shop", "right", 400},
               {"appId=shop&userId=A&appId=other", "theirs", 403},
               {"appId=shop&userId=A", "", 403},
               {"appId=shop&userId=A", "righ", 403},
               {"appId=shop&userId=A", "later", 403},
               {"appId=shop&userId=old", "", 403},
               {"appId=shop&userId=old", "right", 403},
               {"appId=none&userId=A", "right", 404},
               {"appId=shop&userId=%ff", "right", 400},
               {"appId=shop&userId=A", "right", 200},
               {"appId=shop&userId=A", "right", 404},
               {"appId=shop&userId=late", "of a chunk", 200},
               {"appId=other&userId=A", "theirs", 200}};
  for (const auto& c : cases) {
    EXPECT_EQ(send("DELETE", std::string("/v2/api/user?") + c.query, {}, c.secret).status, c.status)
        << c.query << " " << c.secret;
  }
  EXPECT_EQ(send("PUT", "/v2/api/user").json()["error"], Value("this path takes POST, DELETE"));
  EXPECT_NE(text("/debug/users").find("plan of old"), std::string::npos);
}

TEST_F(CollectorErasure, NoFileKeepsATextOfTheDeviceAndTheOtherDevicesDataStays) {
  EXPECT_EQ(sendUser(kGone, "hush-hush"), 200);
  EXPECT_EQ(sendUser(kStays, "another"), 200);
  const auto priced = [](const std::string& price) { return event("Buy", R"({"price": )" + price + "}"); };
  EXPECT_EQ(
      sendChunk(kGone, {.number = 2,
                        .app = event("Whispered", R"({"key-w": "value-w"})") + "," + event("OPEN") + "," +
                               priced("\"costly\"") + "," + priced("\"dear\"") + "," + priced("\"steep\""),
                        .aggregates = R"([{"name": "Hum", "count": 2, "attributes": {"tone": [["value-h", 2]]}}])",
                        .user = R"({"custom_user_id": "someone"})"}),
      200);
  EXPECT_EQ(sendChunk(kStays, {.number = 1, .app = event("Open") + "," + priced("3") + "," + priced("4")}), 200);
  EXPECT_EQ(sendChunk(kStays, {.number = 3, .app = event("Seen", R"({"duration": -1})")}), 200);
  EXPECT_EQ(send("POST", "/v2/api/shop/chunks", chunkOf(kGone, {.number = 3}, kStays)).status,
            200);  // a foreign session
  EXPECT_EQ(send("GET", std::string("/v2/sync/shop/client-events?userId=") + kGone).status, 200);
  EXPECT_EQ(erase(kGone, "wrong"), 403);
  EXPECT_EQ(send("POST", "/v2/api/shop/chunks", std::string("{\"cut\": \"") + kGone).status, 400);
  server.answer("/chunks", Script(503).times(1));
  EXPECT_EQ(sendChunk(kGone, {.number = 4}), 503);
  EXPECT_NE(text("/debug/problems").find("names-differ-in-case"), std::string::npos);
  EXPECT_NE(storedBytes().find(kGone), std::string::npos);

  ASSERT_EQ(erase(kGone, "hush-hush"), 200);
  const std::string bytes = storedBytes(), counts = text("/debug/counts");
  for (const char* gone :
       {kGone, "hush-hush", "Whispered", "key-w", "value-w", "OPEN", "costly", "dear", "Hum", "value-h", "someone"}) {
    EXPECT_EQ(bytes.find(gone), std::string::npos) << gone;
  }
  EXPECT_EQ(in(get("/debug/counts"), {"byKind"}), Value(Dictionary{{"app", 4}})) << counts;
  for (const auto& [name, count] : {std::pair("events", 4), {"sessions", 1}, {"chunks", 2}, {"problems", 2}}) {
    EXPECT_EQ(in(get("/debug/counts"), {name}), Value(count)) << counts;
  }
  EXPECT_EQ(*jsonText(in(get("/debug/aggregates?name=Buy"), {"events", "0", "attributes", "0", "values"})),
            R"([{"value":3,"count":1},{"value":4,"count":1}])");
  EXPECT_EQ(in(get("/debug/problems"), {"counts"}), Value(Dictionary{{"missing-chunk", 1}, {"negative-duration", 1}}));

  // What comes late is answered and dropped, also by a collector that starts again.
  EXPECT_EQ(sendChunk(kGone, {.number = 5, .app = event("Late")}), 200);
  EXPECT_EQ(sendUser(kGone, "hush-hush"), 200);
  EXPECT_EQ(erase(kGone, "hush-hush"), 404);
  EXPECT_EQ(storedBytes().find(kGone), std::string::npos);
  EXPECT_EQ(text("/debug/counts"), counts);
  const Dictionary erasure = *in(get("/debug/erasures"), {"erasures", "0"}).get<Dictionary>();
  EXPECT_EQ(erasure["application"], Value("shop"));
  EXPECT_EQ(erasure["events"], Value(6));
  EXPECT_EQ(erasure["requests"], Value(6));
  std::string deletions;
  for (const auto& request : server.requests("/v2/api/user?appId=shop&userId=erased-")) {
    deletions += request.method + " " + std::to_string(request.status) + " ";
  }
  EXPECT_EQ(deletions, "DELETE 403 DELETE 200 DELETE 404 ");
}

TEST_F(CollectorErasure, AScriptedDeletionErasesOnlyIfItIsServedAndOpenPagesLearnOfIt) {
  Program page({"/usr/bin/env", "curl", "-sN", "--noproxy", "*", server.baseURL() + "/debug/stream"}, {});
  ASSERT_TRUE(page.waitForOutput(": here"));
  EXPECT_EQ(sendUser("A", "s"), 200);
  server.answerInTurn("DELETE /v2/api/user",
                      {Script(503).times(2), Script::cut().times(1), Script::losingTheAnswer().times(1)});
  EXPECT_EQ(sendUser("A", "s"), 200);  // the script is for another method
  for (const int status : {503, 503, 0}) EXPECT_EQ(erase("A", "s"), status);
  EXPECT_EQ(page.output().find("event: erased"), std::string::npos);
  EXPECT_NE(text("/debug/users").find("plan of A"), std::string::npos);
  EXPECT_EQ(erase("A", "s"), 0);
  EXPECT_TRUE(page.waitForOutput("event: erased"));
  EXPECT_EQ(erase("A", "s"), 404);
}

TEST_F(CollectorErasure, AStoreOfAnEarlierVersionIsErasedToo) {
  server.stop();
  const std::string old = home() + "/data/old.db";
  {
    Store present(old);
    collector::Server collector(present, state);
    ASSERT_NE(collector.start(), 0);
    ASSERT_EQ(post(collector.baseURL() + "/v2/api/shop/chunks", chunkOf(kGone, {})).status, 200);
    ASSERT_EQ(curl("'" + collector.baseURL() + "/v2/sync/shop/validate?userId=" + kGone + "'").status, 200);
  }
  {
    collector::Database earlier(old);
    earlier.run(
        "DROP INDEX requests_by_device; DROP INDEX sessions_by_device; DROP INDEX sessions_by_id;"
        "CREATE UNIQUE INDEX sessions_by_id ON sessions (id, application); ALTER TABLE gaps DROP COLUMN evicted;"
        "ALTER TABLE requests DROP COLUMN application; ALTER TABLE requests DROP COLUMN device;"
        "ALTER TABLE sessions DROP COLUMN device_id; ALTER TABLE users DROP COLUMN secret;"
        "ALTER TABLE sessions DROP COLUMN user_id; ALTER TABLE sessions ADD COLUMN problems INTEGER NOT NULL DEFAULT 0;"
        "CREATE TABLE problems (id)");
  }
  Store upgraded(old);
  collector::Server collector(upgraded, state);
  ASSERT_NE(collector.start(), 0);
  ASSERT_EQ(
      post(collector.baseURL() + "/v2/api/shop/chunks", chunkOf(kGone, {.number = 2}), "-H 'X-Kelvo-Erase: s'").status,
      200);
  EXPECT_EQ(upgraded.erase({"shop", kGone}, "s", 1), collector::Erasure::done);
  EXPECT_TRUE(upgraded.requests().empty());
}

TEST_F(CollectorErasure, AnErasureThatAKillInterruptsIsFinishedAtTheNextStart) {
  server.stop();
  const std::string path = home() + "/data/killed.db";
  const pid_t child = fork();
  if (child == 0) {
    Store killed(path);
    collector::ReceivedRequest request;
    request.body = chunkOf(kGone, {.app = event("Whispered")});
    request.device = {"shop", kGone};
    const bool added = killed.add(request, "shop");
    const bool erased = killed.change([](collector::Database& d) { collector::eraseDevice(d, {"shop", kGone}, 1); });
    _exit(added && erased ? 0 : 1);  // without shrinking
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  ASSERT_NE(storedBytes().find("Whispered"), std::string::npos);
  const Store next(path);
  EXPECT_EQ(storedBytes().find("Whispered"), std::string::npos);
  EXPECT_EQ(storedBytes().find(kGone), std::string::npos);
}

}  // namespace
}  // namespace kelvo::test
