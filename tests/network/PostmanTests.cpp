#include <cmath>
#include <limits>

#include "network/HTTPURL.h"
#include "util/KLVServicePaths.h"
#include "network/NetworkTest.h"

namespace kelvo::test {
namespace {

using Postman = NetworkTest;

TEST_F(Postman, AGetArrivesWithItsPathEncodedOnceMore) {
  KLVPostman().getDataFromURLPath("/a b/\xC3\xBC?x=1&y=50%25#[z]", replies.collect());
  replies.wait();
  const auto request = server.requests().at(0);
  EXPECT_EQ(request.method + " " + request.path, "GET /a%20b/%C3%BC");
  EXPECT_EQ(request.query, "x=1&y=50%2525%23%5Bz%5D");
  EXPECT_EQ(request.header("content-type"), "application/json");
  for (const char* absent : {"accept-encoding", "cookie", "expect"}) EXPECT_EQ(request.header(absent), "") << absent;
  EXPECT_TRUE(log.waitFor("<KLV DEBUG> Response: " + server.baseURL() + "/a%20b/%C3%BC?"));
}

TEST_F(Postman, APostCarriesItsBodyToTheLastDigit) {
  const Dictionary body{{"most", std::numeric_limits<std::uint64_t>::max()},
                        {"least", std::numeric_limits<std::int64_t>::min()},
                        {"tenth", 0.1},
                        {"text", "\xC3\xBC\n"},
                        {"list", Array{true, nullptr, Dictionary{}}}};
  const std::string bytes =
      "{\"most\":18446744073709551615,\"least\":-9223372036854775808,\"tenth\":0.1,\"text\":\"\xC3\xBC\\n\","
      "\"list\":[true,null,{}]}";
  KLVPostman().postDataToURL("/post", body, std::nullopt, replies.collect());
  replies.wait(1);
  KLVPostman().postDataToURL("/post", std::nullopt, std::nullopt, replies.collect());
  replies.wait(2);
  KLVPostman().postDataToURL("/post", Dictionary{{"", std::string(3 << 20, 'x')}}, std::nullopt, replies.collect());
  replies.wait(3);
  const auto requests = server.requests();
  EXPECT_EQ(requests.at(0).method, "POST");
  EXPECT_EQ(requests.at(0).body, bytes);
  EXPECT_EQ(requests.at(0).header("content-type"), "application/json");
  EXPECT_EQ(requests.at(1).header("content-length"), "0");
  EXPECT_EQ(requests.at(2).body.size(), (3U << 20) + std::string("{\"\":\"\"}").size());
  EXPECT_EQ(log.count("<KLV DEBUG> request URL: " + server.baseURL() + "/post "), 3U);
  EXPECT_EQ(log.count("<KLV DEBUG> request json: " + bytes), 1U);
}

TEST_F(Postman, TheCallersHeadersReplaceOursAndCannotSlipInOthers) {
  const Dictionary headers{{"content-TYPE", "text/plain"}, {"X-Own", "yes"},          {"X-Bad", "a\r\nX-Slipped: in"},
                           {"X-Name\nX-Slipped", "in"},    {"X-Slipped: in\t", "in"}, {"X-Number", 7}};
  KLVPostman().makeDeleteRequestToURLPath("/thing", headers, replies.collect());
  replies.wait();
  const auto request = server.requests().at(0);
  EXPECT_EQ(request.method + request.body, "DELETE");
  EXPECT_EQ(request.header("content-type"), "text/plain");
  EXPECT_EQ(request.header("x-own"), "yes");
  EXPECT_FALSE(request.headers.contains("x-slipped") || request.headers.contains("x-bad"));
  EXPECT_EQ(log.count("<KLV WARN> Left out a header that cannot be sent: "), 4U);
}

TEST_F(Postman, WhatCannotBeFormedIsLoggedAndNeverCallsBack) {
  const std::string elsewhere = "https://127.0.0.1:1/v2";
  KLVPostman postman;
  postman.getDataFromURLPath("/v2?next=https://127.0.0.1", replies.collect());  // taken for a whole URL
  postman.postDataToURL("https:", Dictionary{}, std::nullopt, replies.collect());
  postman.makeDeleteRequestToURLPath(elsewhere, std::nullopt, replies.collect());  // appended to the endpoint
  EXPECT_EQ(log.count("<KLV WARN> Error in URL encoding"), 3U);
  postman.postDataToURL("/v2", Dictionary{{"x", std::nan("")}}, std::nullopt, replies.collect());
  EXPECT_EQ(log.count("<KLV ERROR> Error geting json object from data: "), 1U);
  EXPECT_EQ(log.count("<KLV WARN> Unable to create requestBody"), 1U);
  EXPECT_EQ(KLVPostman::sharedSession().unfinished(), 0U);
  postman.getDataFromURLPath(elsewhere, replies.collect());  // used as it is; nobody listens there
  EXPECT_TRUE(replies.wait().error);
  EXPECT_TRUE(server.requests().empty());
}

TEST(PostmanWithoutEndpoint, EndsEveryRequestInAnErrorAndSaysOnceWhatToSet) {
  const LogCapture log;
  Replies replies;
  KLVPostman().getDataFromURLPath("/v2", replies.collect());
  EXPECT_TRUE(replies.wait(1).error);
  KLVPostman().makeDeleteRequestToURLPath("https://127.0.0.1:1/v2", std::nullopt, replies.collect());
  EXPECT_TRUE(replies.wait(2).error);
  EXPECT_EQ(log.count("KELVO_SERVER_BASE_URL"), 1U);
}

TEST(URL, OnlyThisMachineIsSpokenToInCleartext) {
  const std::string allowed[] = {"http://localhost/x",   "http://LOCALHOST:80", "http://127.0.0.1:8080/x",
                                 "http://127.255.3.4/",  "http://[::1]:8080/x", "http://[0:0::1]/",
                                 "https://one.example/", "http://2130706433/"};
  const std::string refused[] = {"http://127.0.0.1.example/",
                                 "http://localhost.example/",
                                 "http://my.localhost/",
                                 "http://128.0.0.1/",
                                 "http://[::2]/",
                                 "http://[::ffff:7f00:1]",
                                 "http://localhost@example.com/",
                                 "http://example.com#@localhost/",
                                 "http://0.0.0.0/",
                                 "ftp://example.com/"};
  for (const auto& url : allowed) EXPECT_FALSE(HTTPURL::parse(url).value().exposesCleartext()) << url;
  for (const auto& url : refused) EXPECT_TRUE(HTTPURL::parse(url).value().exposesCleartext()) << url;
  EXPECT_EQ(percentEncoded("http://[::1]:80/[a]"), "http://[::1]:80/%5Ba%5D");
  EXPECT_EQ(byReplacing("/<id>/x/<id>", "<id>", "a<id>%"), "/a<id>%/x/a<id>%");
}

}  // namespace
}  // namespace kelvo::test
