#include <cmath>
#include <sstream>

#include "network/HTTPURL.h"
#include "network/NetworkTest.h"
#include "util/KLVServicePaths.h"

namespace kelvo::test {
namespace {

using Postman = NetworkTest;

TEST_F(Postman, AGetPercentEncodesItsPathEvenIfItIsEncodedAlready) {
  KLVPostman().getDataFromURLPath("/a b/\xC3\xBC?x=1&y=50%25#[z]", replies.collect());
  replies.wait();
  const auto request = server.requests().at(0);
  EXPECT_EQ(request.method + " " + request.path, "GET /a%20b/%C3%BC");
  EXPECT_EQ(request.query, "x=1&y=50%2525%23%5Bz%5D");
  EXPECT_EQ(request.header("content-type"), "application/json");
  for (const char* absent : {"accept-encoding", "cookie", "expect"}) EXPECT_EQ(request.header(absent), "") << absent;
  EXPECT_TRUE(log.waitFor("<KLV DEBUG> Response: " + server.baseURL() + "/a%20b/%C3%BC?"));
}

TEST_F(Postman, LargeBodiesArriveAndHeadersReplaceOursButInjectNoOthers) {
  const Dictionary large{{"", std::string(3 << 20, 'x')}};
  KLVPostman().postDataToURL("/post", large, std::nullopt, replies.collect());
  replies.wait(1);
  EXPECT_TRUE(server.requests().at(0).json() == Value(large));
  const Dictionary headers{{"content-TYPE", "text/plain"}, {"X-Bad", "a\r\nX-Injected: in"}};
  KLVPostman().makeDeleteRequestToURLPath("/thing", headers, replies.collect());
  replies.wait(2);
  const auto request = server.requests().at(1);
  EXPECT_EQ(request.method + " " + request.header("content-type"), "DELETE text/plain");
  EXPECT_FALSE(request.headers.contains("x-injected") || request.headers.contains("x-bad"));
}

TEST_F(Postman, ARequestThatCannotBeFormedIsLoggedAndNeverCallsBack) {
  const std::string elsewhere = "https://127.0.0.1:1/v2";
  KLVPostman postman;
  postman.getDataFromURLPath("/v2?next=https://127.0.0.1", replies.collect());  // taken for a whole URL
  postman.postDataToURL("https:", Dictionary{}, std::nullopt, replies.collect());
  postman.makeDeleteRequestToURLPath(elsewhere, std::nullopt, replies.collect());  // appended to the endpoint
  waitForTheEnd();
  EXPECT_EQ(log.count("<KLV WARN> Error in URL encoding"), 3U);
  postman.postDataToURL("/v2", Dictionary{{"x", std::nan("")}}, std::nullopt, replies.collect());
  EXPECT_EQ(log.count("<KLV ERROR> Error geting json object from data: "), 1U);
  EXPECT_EQ(log.count("<KLV WARN> Unable to create requestBody"), 1U);
  EXPECT_EQ(KLVPostman::sharedSession().unfinished(), 0U);
  postman.getDataFromURLPath(elsewhere, replies.collect());  // used unchanged; nobody listens there
  EXPECT_TRUE(replies.wait().error);
  EXPECT_TRUE(server.requests().empty());
}

TEST(URL, OnlyLoopbackHostsMayGetCleartext) {
  std::istringstream allowed(
      "http://localhost/x http://LOCALHOST:80 http://127.0.0.1:8080/x http://127.255.3.4/ http://[::1]:8080/x "
      "http://[0:0::1]/ https://one.example/ http://2130706433/");
  std::istringstream refused(
      "http://127.0.0.1.example/ http://localhost.example/ http://my.localhost/ http://128.0.0.1/ http://[::2]/ "
      "http://[::ffff:7f00:1] http://localhost@example.com/ http://example.com#@localhost/ http://0.0.0.0/ "
      "ftp://example.com/");
  std::string url;
  while (allowed >> url) EXPECT_FALSE(HTTPURL::parse(url).value().exposesCleartext()) << url;
  while (refused >> url) EXPECT_TRUE(HTTPURL::parse(url).value().exposesCleartext()) << url;
  EXPECT_EQ(percentEncoded("http://[::1]:80/[a]"), "http://[::1]:80/%5Ba%5D");
  EXPECT_EQ(byReplacing("/<id>/x/<id>", "<id>", "a<id>%"), "/a<id>%/x/a<id>%");
}

}  // namespace
}  // namespace kelvo::test
