#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <string>

#include "ServerTest.h"
#include "kelvo-server/db/Blocking.h"
#include "kelvo-server/db/Migrate.h"
#include "kelvo-server/documents/LoadDocuments.h"
#include "kelvo-server/documents/PutDocument.h"
#include "support/TestHome.h"

namespace kelvo::server {
namespace {

/// Has the tables in a schema of its own, and listens for changes.
class DocumentsTest : public testing::Test {
 protected:
  void SetUp() override {
    database_ = test::database() + " options='-c search_path=documents_test -c client_min_messages=warning'";
    connection_ = db::connect(database_);
    run("DROP SCHEMA IF EXISTS documents_test CASCADE; CREATE SCHEMA documents_test");
    db::migrate(database_);
    run(std::string("LISTEN ") + kDocumentsChannel);
  }

  db::Rows run(const std::string& sql) { return db::run(connection_, sql); }

  /// Returns the exit status.
  int put(const std::string& document, const std::string& content, const std::string& app = "shop") {
    const std::string file = test::library("document.json");
    test::writeFileForTest(file, content);
    return putDocument({database_, document, app, file});
  }

  AppDocuments load() { return documentsFrom(run(kSelectDocuments)); }

  /// Returns the number of notifications since the last call.
  int notifications() {
    run("SET application_name = ''");  // notifications come with the answer to a command
    int count = 0;
    while (PGnotify* notification = PQnotifies(connection_.get())) {
      PQfreemem(notification);
      ++count;
    }
    return count;
  }

  std::string database_;
  db::Handle connection_;
};

TEST_F(DocumentsTest, EachApplicationReadsWhatWasPutForIt) {
  EXPECT_EQ(put("enabled", R"({"enabled": false})"), 0);
  EXPECT_EQ(put("config", R"({"enable": true, "service_paths": {}, "max_fg_chunk_send_time": 7})"), 0);
  EXPECT_EQ(put("client-events", R"({"agg": ["Scroll"]})", "game"), 0);
  EXPECT_EQ(notifications(), 3);

  const AppDocuments documents = load();
  const service::ServiceState defaults;
  ASSERT_EQ(documents.size(), 2U);
  const service::ServiceState& shop = *documents.at("shop");
  const service::ServiceState& game = *documents.at("game");
  EXPECT_EQ(shop.enabledStatus()["enabled"], Value(false));
  EXPECT_EQ(shop.configuration()["max_fg_chunk_send_time"], Value(7));
  EXPECT_EQ(shop.clientEventsValidation(), defaults.clientEventsValidation());
  EXPECT_EQ(game.enabledStatus(), defaults.enabledStatus());
  EXPECT_NE(game.clientEventsValidation(), defaults.clientEventsValidation());
}

TEST_F(DocumentsTest, ActionsAreReplacedListByList) {
  const std::string thanks = R"([{"pid": "thanks", "mid": "1", "config": {"_id": "thanks-1"}}])";
  EXPECT_EQ(put("actions", R"({"rta": )" + thanks + R"(, "survey": )" + thanks + "}"), 0);
  EXPECT_EQ(put("actions", R"({"rta": []})"), 0);
  const AppDocuments documents = load();
  EXPECT_EQ(documents.at("shop")->actions("rta").size(), 0U);
  EXPECT_EQ(documents.at("shop")->actions("survey").size(), 1U);
}

TEST_F(DocumentsTest, AFaultChangesNothing) {
  ASSERT_EQ(put("client-events", R"({"stop": ["Debug"]})"), 0);
  ASSERT_EQ(notifications(), 1);
  struct {
    const char* document;
    const char* content;
    const char* app;
    int status;
  } const faults[] = {
      {"client-events", R"({"stop": ["BACKGROUND"]})", "shop", 1},  // would end all delivery
      {"config", R"({"enable": true})", "shop", 1},
      {"enabled", "{", "shop", 1},
      {"actions", R"({"rta": [], "survey": [{"pid": "a_b"}]})", "shop", 1},  // the valid list stays unchanged, too
      {"actions", "{}", "shop", 1},
      {"actions/rta", "[]", "shop", 2},
      {"enabled", R"({"enabled": false})", "a/b", 2},
  };
  for (const auto& fault : faults) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(put(fault.document, fault.content, fault.app), fault.status) << fault.content;
    EXPECT_FALSE(testing::internal::GetCapturedStderr().empty()) << fault.content;
  }
  EXPECT_EQ(notifications(), 0);
  run("DO $$ BEGIN ASSERT (SELECT string_agg(name || version, ' ') FROM documents) = 'client-events1'; END $$");
}

/// A document of another version of the server.
TEST_F(DocumentsTest, AnInvalidRowLeavesTheDefault) {
  run(R"(INSERT INTO documents (app, name, body) VALUES ('shop', 'config', '{"enable": 1}'),
         ('shop', 'enabled', '{"enabled": false}'))");
  const AppDocuments documents = load();
  EXPECT_EQ(documents.at("shop")->configuration(), service::ServiceState().configuration());
  EXPECT_EQ(documents.at("shop")->enabledStatus()["enabled"], Value(false));
}

}  // namespace
}  // namespace kelvo::server
