#include "kelvo-collector/store/Expectations.h"

#include <gtest/gtest.h>

#include "CollectorTest.h"
#include "kelvo-collector/http/Server.h"
#include "kelvo-service/ServiceState.h"

namespace kelvo::test {
namespace {

using collector::Expectations;

TEST(CollectorExpectations, JudgeAnEventByTypesRangesValuesAndOtherAttributes) {
  const struct {
    const char *rules, *attributes;
    std::vector<std::string> faults;
  } cases[] = {
      {R"({"attributes": {"a": "text"}})", R"({"a": "x", "b": 1})", {}},
      {R"({"attributes": {"a": "text"}})", "{}", {"\"a\" is missing"}},
      {R"({"attributes": {"a": "text"}})", R"({"a": null})", {"\"a\" is missing"}},
      {R"({"attributes": {"a": {"type": "text", "required": false}}})", "{}", {}},
      {R"({"attributes": {"a": {"type": "text", "required": false}}})", R"({"a": 3})", {"\"a\" is 3, not a text"}},
      {R"({"attributes": {"a": "number"}})", R"({"a": true})", {"\"a\" is true, not a number"}},
      {R"({"attributes": {"a": "boolean", "b": "list", "c": "dictionary"}})", R"({"a": false, "b": [], "c": {}})", {}},
      {R"({"attributes": {"a": {"min": 1, "max": 2}}})", R"({"a": 1})", {}},
      {R"({"attributes": {"a": {"min": 1, "max": 2}}})", R"({"a": 2.5})", {"\"a\" is 2.5, not at most 2"}},
      {R"({"attributes": {"a": {"min": 1}}})", R"({"a": 0})", {"\"a\" is 0, not at least 1"}},
      {R"({"attributes": {"a": {"min": 1}}})", R"({"a": "5"})", {"\"a\" is \"5\", not a number"}},
      {R"({"attributes": {"a": {"values": [1, "x"]}}})", R"({"a": 1.0})", {}},
      {R"({"attributes": {"a": {"values": [1, "x"]}}})", R"({"a": true})", {"\"a\" is true, not one of [1,\"x\"]"}},
      {R"({"others": false})", R"({"b": 1, "klv_lt_count": 2})", {"\"b\" is not expected"}},
      {R"({"attributes": {"a": "integer", "b": "integer"}})",
       R"({"a": 2.0, "b": 2.5})",
       {"\"b\" is 2.5, not a whole number"}},
      {R"({"aggregate": true})", "{}", {"the event is not an aggregate"}},
      {"false", "{}", {"the event is not expected"}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> errors, faults;
    const auto all = Expectations::parse(Dictionary{{"Buy", *parseJSON(c.rules)}}, errors);
    ASSERT_TRUE(all) << testing::PrintToString(errors);
    for (const auto& fault : all->faultsOf({"Buy", *parseJSON(c.attributes)->get<Dictionary>()})) {
      faults.push_back(fault.message);
    }
    EXPECT_EQ(faults, c.faults) << c.rules << c.attributes;
  }
}

TEST(CollectorExpectations, AnAggregateIsJudgedByEachValueThatItHasCounted) {
  std::vector<std::string> errors, faults;
  const char* rules = R"({"*": {"attributes": {"page": {"values": ["a", "b"]}, "stars": {"type": "integer", "max": 5},
    "fast": "boolean", "free": "text"}, "others": false, "aggregate": false}, "klv_x": {}})";
  const auto all = Expectations::parse(*parseJSON(rules), errors);
  ASSERT_TRUE(all) << testing::PrintToString(errors);
  const char* sums = R"({"page": [["a", 3], [null, 1], ["c", 1]], "stars": [["5", 1], ["6", 2], ["1.5", 1], ["x", 1]],
    "fast": [["1", 2], ["0", 1], ["yes", 1]], "gift": []})";
  const Dictionary attributes = *parseJSON(sums)->get<Dictionary>();
  for (const auto& fault : all->faultsOf({"Any", attributes, true})) faults.push_back(fault.message);
  EXPECT_EQ(faults, (std::vector<std::string>{"the event is an aggregate", "\"fast\" is \"yes\", not a boolean",
                                              "\"free\" is missing", "\"page\" is \"c\", not one of [\"a\",\"b\"]",
                                              "\"stars\" is 6, not at most 5", "\"stars\" is 1.5, not a whole number",
                                              "\"stars\" is \"x\", not a whole number", "\"gift\" is not expected"}));
  EXPECT_FALSE(all->cover("klv_app_opened"));
}

TEST(CollectorExpectations, AnInvalidDocumentIsRefusedWithEachReasonAndChangesNothing) {
  collector::Server server;
  server.start();
  const auto put = [&](const std::string& path, const std::string& body) {
    return post(server.baseURL() + path, body, "-X PUT");
  };
  ASSERT_EQ(put("/debug/expectations", R"({"Old": {}})").status, 200);
  const auto rule = [](const std::string& text) { return R"({"Buy": {"attributes": {"a": )" + text + "}}}"; };
  const std::pair<std::string, const char*> cases[] = {
      {"{", "it is not JSON: "},
      {"[]", "the body is not an object with the names of events"},
      {R"({"Buy": []})", R"(Buy: the expectation is neither false nor an object with "attributes" or "others")"},
      {R"({"Buy": {"attribute": {}}})", R"(Buy: there is no member "attribute")"},
      {R"({"Buy": {"attributes": []}})", "Buy: attributes is not an object"},
      {R"({"Buy": {"others": "no"}})", "Buy: others is not true or false"},
      {rule("3"), "Buy.a: the rule is neither a type nor an object"},
      {rule(R"("string")"), R"(Buy.a: type is none of "text", "number", "integer", "boolean", "list", "dictionary")"},
      {rule(R"({"min": "0"})"), "Buy.a: min is not a number"},
      {rule(R"({"type": "text", "max": 3})"), "Buy.a: only a number has min and max"},
      {rule(R"({"min": 3, "max": 2})"), "Buy.a: min is above max"},
      {rule(R"({"values": []})"), "Buy.a: values is not a list with a value"},
      {rule(R"({"required": 1})"), "Buy.a: required is not true or false"},
      {rule(R"({"minimum": 1})"), R"(Buy.a: there is no member "minimum")"}};
  for (const auto& [body, error] : cases) {
    const CurlResult refused = put("/debug/expectations", body);
    EXPECT_EQ(refused.status, 400) << body;
    EXPECT_EQ(description(in(refused.json(), {"errors", "0"})).rfind(error, 0), 0U) << body << refused.body;
  }
  EXPECT_EQ(in(curl(server.baseURL() + "/debug/expectations").json(), {"expectations"}),
            Value(Dictionary{{"Old", Dictionary{}}}));
  EXPECT_EQ(put("/debug/checks", R"({"no-such": true})").status, 400);
  EXPECT_EQ(put("/debug/checks", R"({"chunk-order": 0})").status, 400);
}

TEST(CollectorExpectations, EventsAreJudgedOnArrivalAndAgainWhenTheDocumentChanges) {
  const std::string path = home() + "/collector.db";
  const auto price = [](const char* value) { return event("Buy", R"({"price": )" + std::string(value) + "}"); };
  const auto maximum = [](const char* value) {
    return R"({"Buy": {"attributes": {"price": {"max": )" + std::string(value) + "}}}}";
  };
  std::string url;
  /// Returns the counts of good and bad events, of the problem and of the totals.
  const auto verdicts = [&url] {
    std::string all;
    for (const char* of : {"good?name=Buy", "bad", "bad?session=other", "bad?name=Sell"}) {
      all += description(curl("'" + url + "/debug/" + of + "'").json()["count"]) + " ";
    }
    const Dictionary problems = curl(url + "/debug/problems").json();
    return all + description(in(problems, {"problems", "0", "count"})) + " " +
           description(curl(url + "/debug/counts").json()["bad"]);
  };
  collector::ServiceState state;
  {
    collector::Store store(path);
    collector::Server server(store, state);
    server.start();
    url = server.baseURL();
    const auto send = [&](const ChunkOf& chunk) { return post(url + "/v2/api/app7/chunks", chunk.text()).status; };
    ASSERT_EQ(send({.app = price("5") + "," + price("15") + "," + event("Sell")}), 200);
    EXPECT_EQ(verdicts(), "0 0 0 0 (null) 0");
    ASSERT_EQ(post(url + "/debug/expectations", maximum("10"), "-X PUT").status, 200);
    EXPECT_EQ(verdicts(), "1 1 0 0 1 1");
    ASSERT_EQ(send({.app = price("25"), .session = "other"}), 200);
    EXPECT_EQ(verdicts(), "1 2 1 0 2 2");
    const Dictionary bad = curl("'" + url + "/debug/bad?order=desc&limit=1'").json();
    EXPECT_EQ(in(bad, {"events", "0", "faults", "0", "fault"}), Value("\"price\" is 25, not at most 10"));
    const std::string next = description(bad["next"]);
    EXPECT_EQ(in(curl("'" + url + "/debug/bad?order=desc&after=" + next + "'").json(), {"events", "0", "session"}),
              Value("1700000000000-D1"));
    ASSERT_EQ(post(url + "/debug/expectations", maximum("20"), "-X PUT").status, 200);
    EXPECT_EQ(verdicts(), "2 1 1 0 1 1");
    ASSERT_EQ(curl("-X POST " + url + "/debug/reset").status, 200);
  }
  collector::Store store(path);
  collector::Server server(store, state);
  server.start();
  url = server.baseURL();
  ASSERT_EQ(post(url + "/v2/api/app7/chunks", ChunkOf{.app = price("21")}.text()).status, 200);
  EXPECT_EQ(verdicts(), "0 1 0 0 1 1");
}

}  // namespace
}  // namespace kelvo::test
