#include <atomic>
#include <chrono>
#include <cstdlib>
#include <set>
#include <thread>

#include "DatabaseProxy.h"
#include "ServerTest.h"

namespace kelvo::test {
namespace {

using Deliveries = ServerTest;
using Outages = ServerTest;
using Erasures = ServerTest;
using Retention = ServerTest;

TEST_F(Deliveries, AChunkIsStoredOnceHoweverOftenItArrivesAtTwoServers) {
  const int ports[] = {start().port(), start().port()};
  inParallel(16, [&](int i) {
    ChunkBody chunk;
    // Between two sendings, attributes and counts change; events do not.
    chunk.attributes = R"({"custom_user_id":"c","sending":)" + std::to_string(i) + "}";
    chunk.ratings = 1 + (i * 7) % 16;
    EXPECT_EQ(post(ports[i % 2], chunk.text()).status, 200);
  });
  EXPECT_EQ(count("events"), 2);
  EXPECT_EQ(count("chunks", "arrivals = 16 AND events = 2"), 1);
  EXPECT_EQ(count("aggregates", "count = 16"), 2) << "the total and its one value";
  EXPECT_EQ(count("sessions", "chunks = 1 AND events = 2 AND user_id = 'c'"), 1);
  EXPECT_EQ(metric(*servers[0], "chunks_total") + metric(*servers[1], "chunks_total"), 1);
  EXPECT_EQ(metric(*servers[0], "duplicates_total") + metric(*servers[1], "duplicates_total"), 15);

  const ChunkBody other{.events = 3, .ratings = 99};
  for (int i = 0; i < 2; ++i) EXPECT_EQ(post(ports[0], other.text()).status, 200);
  EXPECT_EQ(count("events"), 2);
  EXPECT_EQ(count("conflicts", "arrivals = 2 AND body->'chunk_meta'->>'number' = '1'"), 1);
  EXPECT_EQ(count("aggregates", "count = 99"), 0);
  EXPECT_EQ(metric(*servers[0], "conflicts_total"), 2);
}

TEST_F(Deliveries, UnreadableBodiesAndDataThatTheDatabaseRefusesAreKeptAsideAlone) {
  server::Server& server = start({"--database-connections", "1"});
  sql("ALTER TABLE events ADD CONSTRAINT no_bad_events CHECK (name <> 'Bad')");
  inParallel(12, [&](int i) {
    ChunkBody chunk{.device = "D" + std::to_string(i), .events = 1};
    // An index refuses a long text that cannot be compressed, so the name has the whole one elsewhere.
    if (i == 5) {
      chunk.event.clear();
      for (int j = 0; j < 1500; ++j) chunk.event += std::to_string((j * 7919L * j) % 99991);
    }
    if (i == 6) chunk.event = "Bad";
    if (i == 7) chunk.session.assign(600, 's');
    EXPECT_EQ(post(server.port(), chunk.text()).status, 200) << i;
  });
  sql("ALTER TABLE events DROP CONSTRAINT no_bad_events");
  EXPECT_EQ(count("events"), 10);
  EXPECT_EQ(count("quarantine", "device = 'D6' AND reason LIKE '%no_bad_events%'"), 1);
  EXPECT_EQ(count("events",
                  "device = 'D5' AND length(name) = 2000 AND length(full_name) > 7000"
                  " AND starts_with(full_name, left(name, 1900))"),
            1);
  EXPECT_EQ(count("quarantine", "reason LIKE 'an id %'"), 1);
  EXPECT_EQ(post(server.port(), "{\"sdk_info\":").status, 200);
  EXPECT_EQ(post(server.port(), "{}").status, 200);
  EXPECT_EQ(post(server.port(), "{}").status, 200);
  EXPECT_EQ(post(server.port(), std::string("\0\xff", 2)).status, 200);
  EXPECT_EQ(count("quarantine", "reason = 'sdk_info is missing' AND arrivals = 2 AND body = '{}'::bytea"), 1);
  EXPECT_EQ(count("quarantine", "reason LIKE '%not JSON%'"), 2);
  EXPECT_EQ(metric(server, "quarantined_total"), 6);

  ChunkBody zeros{.device = "Z", .events = 1, .event = R"(a\u0000\\u0000)", .attributes = R"({"\u0000":"\u0000"})"};
  EXPECT_EQ(post(server.port(), zeros.text()).status, 200);
  EXPECT_EQ(count("events", R"(name = E'a\uFFFD\\u0000')"), 1);
  EXPECT_EQ(count("devices", R"(user_attributes = '{"\uFFFD":"\uFFFD"}')"), 1);

  const server::Server& strict = start({"--strict"});
  const HTTPAnswer refused = post(strict.port(), R"({"strict":1})");
  EXPECT_EQ(refused.status, 400);
  EXPECT_NE(refused.body.find("sdk_info is missing"), std::string::npos);
  EXPECT_EQ(count("quarantine"), 5);
}

TEST_F(Outages, ConnectionsThatBreakAndADeadDatabaseCostNoChunkAndNoDuplicate) {
  const std::vector<int> ports{start({"--retry-after", "7"}).port(), start().port()};
  constexpr int kDevices = 8, kChunks = 40;
  std::atomic<bool> isDone{false};
  std::thread killer([&] {
    while (!isDone) {
      sql("SELECT count(pg_terminate_backend(pid)) FROM pg_stat_activity WHERE application_name = 'kelvo-server'"
          " AND query LIKE '%INSERT%' AND pid <> pg_backend_pid()");
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
  });
  inParallel(kDevices, [&](int device) {
    for (int i = 1; i <= kChunks; ++i) {
      EXPECT_TRUE(deliver(ports, {.device = "D" + std::to_string(device), .number = i, .ratings = i}));
    }
  });
  isDone = true;
  killer.join();
  EXPECT_EQ(count("events"), kDevices * kChunks * 2);
  EXPECT_EQ(count("chunks"), kDevices * kChunks);
  EXPECT_EQ(count("sessions", "chunks = 40 AND events = 80 AND highest_chunk = 40"), kDevices);
  EXPECT_EQ(count("aggregates", "count = 40"), kDevices * 2);

  postgres("kill");
  std::set<int> delays;
  for (int i = 0; i < 20; ++i) {
    const HTTPAnswer away = post(ports[0], ChunkBody{.device = "late"}.text());
    EXPECT_EQ(away.status, 503);
    delays.insert(away.retryAfter);
  }
  EXPECT_GE(*delays.begin(), 7);
  EXPECT_LE(*delays.rbegin(), 21);
  EXPECT_GT(delays.size(), 3U) << "the delays are random";
  EXPECT_EQ(get(ports[0], "/v2/api/" + app + "/sdk/enabled-status").status, 200) << "documents are in memory";
  EXPECT_TRUE(eventually([&] { return get(servers[0]->adminPort(), "/readyz").status == 503; }));
  EXPECT_EQ(get(servers[0]->adminPort(), "/healthz").status, 200);
  postgres("start");
  EXPECT_TRUE(deliver(ports, {.device = "late"}));
  EXPECT_EQ(count("events", "device = 'late'"), 2);
}

TEST_F(Outages, ADeadNameServerStallsNoAnswer) {
  DatabaseProxy proxy;
  const server::Server& known = start({"--database", proxy.database()});
  std::unique_ptr<server::Server> fresh;
  const auto ask = [&](const server::Server& of) { return get(of.port(), "/v2/api/a/sdk/enabled-status").status; };
  {
    const DeadNameServer dead;
    proxy.cut();
    const auto settings =
        server::readSettings({"--database", proxy.database(), "--listen", "127.0.0.1:0", "--admin", "127.0.0.1:0"});
    fresh = std::make_unique<server::Server>(*settings.first);
    fresh->start();
    EXPECT_TRUE(eventually([&] { return DeadNameServer::waiting() >= 4; }));
    for (int i = 0; i < 8; ++i) {  // on each loop
      EXPECT_EQ(ask(known), 200) << "the documents are in memory";
      EXPECT_EQ(ask(*fresh), 503) << "an application may be switched off";
      EXPECT_EQ(get(known.adminPort(), "/healthz").status, 200);
    }
    EXPECT_TRUE(eventually([&] { return get(known.adminPort(), "/readyz").status == 503; }));
    EXPECT_EQ(post(known.port(), ChunkBody{}.text()).status, 503) << "a chunk waits for a while";
    fresh.reset();
    EXPECT_GT(DeadNameServer::waiting(), 0) << "the end does not wait for the name server";
  }
  EXPECT_TRUE(deliver({known.port()}, {}));
  EXPECT_TRUE(eventually([] { return DeadNameServer::waiting() == 0; }));
}

TEST_F(Outages, AChunkWaitsForAConnectionForTenSecondsAtMost) {
  const int loops = static_cast<int>(std::thread::hardware_concurrency());
  const server::Server& server = start({"--database-connections", std::to_string(loops)});
  std::thread lock([] { sql("BEGIN; LOCK TABLE chunks IN ACCESS EXCLUSIVE MODE; SELECT pg_sleep(13); COMMIT"); });
  const auto locks = [](const std::string& condition) {
    return sql("SELECT count(*) FROM pg_locks WHERE relation = 'chunks'::regclass AND " + condition);
  };
  EXPECT_TRUE(eventually([&] { return locks("granted AND mode = 'AccessExclusiveLock'") == "1"; }));
  const auto deliverTo = [&](const std::string& devices, int status) {
    inParallel(loops, [&](int i) {  // one on each loop
      EXPECT_EQ(post(server.port(), ChunkBody{.device = devices + std::to_string(i)}.text()).status, status);
    });
  };
  std::thread first([&] { deliverTo("first", 200); });
  EXPECT_TRUE(eventually([&] { return locks("NOT granted") == std::to_string(loops); }));
  deliverTo("second", 503);
  EXPECT_EQ(metric(server, "waiting_chunks"), loops) << "the database still hangs";
  first.join();
  EXPECT_EQ(metric(server, "waiting_chunks"), 0);
  lock.join();
}

TEST_F(Outages, ADeadlockIsTriedAgain) {
  const server::Server& server = start();
  ASSERT_EQ(post(server.port(), ChunkBody{}.text()).status, 200);
  const auto deadlocks = [] {
    return std::atoi(sql("SELECT deadlocks FROM pg_stat_database WHERE datname = current_database()").c_str());
  };
  const int before = deadlocks();
  // The server locks the device, then the session; this transaction locks them the other way round. PostgreSQL ends the
  // server's, which is the first to look for a deadlock.
  std::thread opposite([&] {
    sql("BEGIN; SET LOCAL deadlock_timeout = '1min'; UPDATE sessions SET seconds = 0 WHERE app = '" + app +
        "'; DO $$ BEGIN WHILE NOT EXISTS (SELECT FROM pg_locks WHERE NOT granted AND pg_backend_pid() = ANY"
        "(pg_blocking_pids(pid))) LOOP PERFORM pg_sleep(0.05); END LOOP; END $$; UPDATE devices SET token = NULL"
        " WHERE app = '" +
        app + "'; COMMIT");
  });
  EXPECT_TRUE(
      eventually([] { return sql("SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'PgSleep'") == "1"; }));
  EXPECT_EQ(post(server.port(), ChunkBody{.number = 2}.text()).status, 200);
  opposite.join();
  EXPECT_TRUE(eventually([&] { return deadlocks() > before; }));
  EXPECT_EQ(count("events"), 4);
}

TEST_F(Erasures, AnErasedDeviceLeavesAKeyedHashAndItsLateChunksAreDropped) {
  const server::Server& server = start();
  const auto erase = [&](const std::string& device, const std::string& secret) {
    const std::string path = "/v2/api/user?appId=" + app + "&userId=" + device;
    return send(server.port(), path, {}, {.method = "DELETE", .headers = {"X-Kelvo-Erase: " + secret}}).status;
  };
  const auto introduce = [&](const std::string& device, const std::string& secret) {
    return send(server.port(), "/v2/api/user?appId=" + app, userInfo(device),
                {.headers = {"X-Kelvo-Erase: " + secret}});
  };
  EXPECT_EQ(erase("D0", "s"), 404);
  const HTTPOptions withSecret{.headers = {"X-Kelvo-Erase: own"}};
  EXPECT_EQ(post(server.port(), ChunkBody{.device = "C"}.text(), withSecret).status, 200) << "no user-info request";
  EXPECT_EQ(erase("C", "other"), 403);
  EXPECT_EQ(erase("C", "own"), 200);
  EXPECT_EQ(post(server.port(), ChunkBody{.device = "D0"}.text()).status, 200);
  EXPECT_EQ(erase("D0", "s"), 403) << "no secret is known";
  EXPECT_EQ(introduce("D0", "first").status, 200);
  EXPECT_EQ(introduce("D0", "second").status, 200);
  EXPECT_EQ(erase("D0", "second"), 403);
  EXPECT_EQ(count("events"), 2);
  EXPECT_EQ(count("devices", "erase_secret_hash LIKE '%first%'"), 0) << "the secret is hashed";
  EXPECT_EQ(count("devices", R"(user_attributes = '{"plan":"gold"}')"), 1) << "a report is newer than each chunk";

  constexpr int kDevices = 12;
  for (int i = 1; i < kDevices; ++i) EXPECT_EQ(introduce("D" + std::to_string(i), "first").status, 200);
  inParallel(kDevices * 3, [&](int i) {
    const std::string device = "D" + std::to_string(i % kDevices);
    if (i < kDevices) {
      EXPECT_TRUE(eventually([&] { return erase(device, "first") != 503; }));
      return;
    }
    for (int number = 1; number <= 5; ++number) {
      EXPECT_TRUE(
          deliver({server.port()}, {.device = device, .number = number, .events = 1 + i / kDevices, .ratings = 1}));
    }
  });
  // The second chunk of each id is a conflict, so all tables were filled.
  for (const char* table : {"events", "chunks", "sessions", "aggregates", "conflicts", "devices", "quarantine"}) {
    EXPECT_EQ(count(table), 0) << table;
  }
  EXPECT_EQ(count("erased"), kDevices + 1);
  EXPECT_EQ(count("erased", "device_hash LIKE '%D1%'"), 0);
  EXPECT_EQ(introduce("D0", "first").status, 200);
  EXPECT_EQ(count("devices"), 0);
  EXPECT_EQ(erase("D0", "first"), 404);
  EXPECT_GT(metric(server, "dropped_total"), 0);
  EXPECT_EQ(metric(server, "erasures_total"), kDevices + 1);
}

TEST_F(Retention, WholeDaysAreCountedAndDroppedAndIdsStay) {
  const server::Server& server = start();
  const std::string old = "(now() AT TIME ZONE 'UTC')::date - 5";
  sql("SELECT kelvo_add_partitions(1, " + old + ")");
  ASSERT_EQ(post(server.port(), ChunkBody{.device = "old"}.text()).status, 200);
  ASSERT_EQ(post(server.port(), ChunkBody{.device = "new"}.text()).status, 200);
  for (const char* table : {"events", "sessions"}) {
    sql("UPDATE " + std::string(table) + " SET arrived = " + old + " WHERE app = '" + app + "' AND device = 'old'");
  }
  const std::string partition = sql("SELECT 'events_' || to_char(" + old + ", 'YYYYMMDD')");
  start({"--keep-days", "6"});
  start({"--keep-days", "4"});
  EXPECT_TRUE(eventually([&] { return count("sessions") == 1; }));
  EXPECT_EQ(sql("SELECT count(*) FROM pg_class WHERE relname = '" + partition + "'"), "0");
  EXPECT_EQ(count("events"), 2);
  EXPECT_EQ(sql("SELECT sum(events) FROM event_counts WHERE app = '" + app + "'"), "4");
  EXPECT_EQ(post(server.port(), ChunkBody{.device = "old"}.text()).status, 200);
  EXPECT_EQ(count("events"), 2);
  EXPECT_EQ(count("chunks", "arrivals = 2"), 1);
}

}  // namespace
}  // namespace kelvo::test
