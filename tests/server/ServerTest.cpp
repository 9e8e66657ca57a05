#include "ServerTest.h"

#include <curl/curl.h>

#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "kelvo-server/db/Blocking.h"
#include "kelvo-server/db/Migrate.h"

namespace kelvo::test {
namespace {

std::size_t append(const char* bytes, std::size_t, std::size_t size, void* text) {
  static_cast<std::string*>(text)->append(bytes, size);
  return size;
}

}  // namespace

std::string database() {
  const char* text = std::getenv("KELVO_SERVER_DATABASE");
  if (text == nullptr) throw std::runtime_error("run this with scripts/postgres exec --fast");
  return text;
}

HTTPAnswer send(int port, const std::string& path, const std::string& body, const HTTPOptions& options) {
  const std::unique_ptr<CURL, void (*)(CURL*)> curl(curl_easy_init(), curl_easy_cleanup);
  const bool isSecure = !options.trustedCertificate.empty();
  const std::string url = (isSecure ? "https://localhost:" : "http://127.0.0.1:") + std::to_string(port) + path;
  HTTPAnswer answer;
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, options.method.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer.body);
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 40L);
  if (isSecure) curl_easy_setopt(curl.get(), CURLOPT_CAINFO, options.trustedCertificate.c_str());
  if (options.method == "POST") {
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  }
  curl_slist* headers = nullptr;
  for (const std::string& header : options.headers) headers = curl_slist_append(headers, header.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers);
  if (curl_easy_perform(curl.get()) == CURLE_OK) {
    long status = 0;
    curl_off_t retryAfter = 0;
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(curl.get(), CURLINFO_RETRY_AFTER, &retryAfter);
    answer.status = static_cast<int>(status);
    answer.retryAfter = static_cast<int>(retryAfter);
  }
  curl_slist_free_all(headers);
  return answer;
}

HTTPAnswer get(int port, const std::string& path) {
  return send(port, path, {}, {.method = "GET"});
}

std::string sql(const std::string& text) {
  try {
    const server::db::Rows rows = server::db::run(server::db::connect(database()), text);
    return rows.size() > 0 ? rows.text(0, 0) : "";
  } catch (const std::runtime_error& error) {
    ADD_FAILURE() << text << ": " << error.what();
    return {};
  }
}

void postgres(const std::string& command) {
  ASSERT_EQ(std::system((KELVO_POSTGRES_SCRIPT " " + command + " >&2").c_str()), 0);
}

std::string ChunkBody::text() const {
  const std::string id = session.empty() ? "1795244490001-" + device : session;
  std::string list;
  for (int i = 0; i < events; ++i) {
    list += (i == 0 ? "" : ",") + std::string("{\"name\":\"") + event + "\",\"time\":" + std::to_string(i) +
            ",\"additional_info\":{\"total\":79.5}}";
  }
  const std::string ratingsText = std::to_string(ratings);
  const std::string aggregates = ratings == 0 ? ""
                                              : R"({"name":"Rating","count":)" + ratingsText +
                                                    R"(,"attributes":{"stars":[["5",)" + ratingsText + "]]}}";
  return R"({"sdk_info":{"sdk_version":288.0,"sdk_start_time":1,"config_id":"-","tick_interval":1,"chunk_retry_window":1},
"session_info":{"id":")" +
         id + R"(","launch_time":1795244490001,"launch_time_string":"-","launch_type":"normal",
"duration":1,"startup_time":0,"is_first_session":true,"is_background":false,"is_fatal":false,"process_name":"-"},
"app_info":{"app_name":"Shop","app_version":"2.4","app_mode":"Release","bundle_id":"-","installation_time":1},
"device_info":{"id":")" +
         device + R"(","hardware_model":"x86_64","os_version":"12","platform":"ios",
"dimensions":{"width":1920,"height":1080}},
"chunk_meta":{"id":")" +
         id + "_" + std::to_string(number) + R"(","number":)" + std::to_string(number) +
         R"(,"reporting_times":[1]},
"chunk_details":{"user_attributes":)" +
         attributes + R"(,"session_attributes":{},"chunk_attributes":{},
"system_events":[],"navigation_events":[],"app_events":[)" +
         list + R"(],"agg_events":[)" + aggregates + "]}}";
}

std::string userInfo(const std::string& device) {
  return R"({"sdk_version":"288","app_info":{"app_name":"Shop","app_version":"2.4","app_mode":"Release",
"bundle_id":"-","installation_time":1},"device_info":{"id":")" +
         device + R"(","hardware_model":"x86_64",
"os_version":"12","platform":"ios","dimensions":{"width":1,"height":1}},"user_attributes":{"plan":"gold"}})";
}

void inParallel(int count, const std::function<void(int)>& work) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) threads.emplace_back(work, i);
  for (std::thread& thread : threads) thread.join();
}

ServerTest::ServerTest()
    : app(testing::UnitTest::GetInstance()->current_test_info()->name()), chunks("/v2/api/" + app + "/chunks") {
  static const bool isMigrated = (server::db::migrate(database()), true);
  static_cast<void>(isMigrated);
}

server::Server& ServerTest::start(const std::vector<std::string>& flags) {
  std::vector<std::string> all{"--database", database(), "--listen", "127.0.0.1:0", "--admin", "127.0.0.1:0"};
  all.insert(all.end(), flags.begin(), flags.end());
  const auto settings = server::readSettings(all);
  if (!settings.first) throw std::runtime_error(settings.second);
  servers.push_back(std::make_unique<server::Server>(*settings.first));
  servers.back()->start();
  const int admin = servers.back()->adminPort();
  const int port = servers.back()->port();
  EXPECT_TRUE(eventually([&] {
    return get(admin, "/readyz").status == 200 && get(port, "/v2/api/" + app + "/sdk/enabled-status").status == 200;
  }));
  return *servers.back();
}

bool ServerTest::deliver(const std::vector<int>& ports, const ChunkBody& chunk) const {
  std::size_t tries = 0;
  return eventually([&] { return send(ports[tries++ % ports.size()], chunks, chunk.text()).status == 200; });
}

int ServerTest::count(const std::string& table, const std::string& where) const {
  return std::atoi(sql("SELECT count(*) FROM " + table + " WHERE app = '" + app + "' AND " + where).c_str());
}

int ServerTest::metric(const server::Server& of, const std::string& name) const {
  const std::string text = get(of.adminPort(), "/metrics").body;
  const std::string line = "kelvo_" + name + "{app=\"" + app + "\"} ";
  const auto at = text.find(line);
  return at == std::string::npos ? -1 : std::atoi(text.c_str() + at + line.size());
}

}  // namespace kelvo::test
