#include <algorithm>

#include "platform/JSON.h"
#include "road/Road.h"

namespace kelvo::test {
namespace {

class RegistryRoad : public Road {
 protected:
  /// Tells the service to expect the events of the example's registry only.
  void expectTheRegistry() {
    Program tool = run({KELVO_EVENTS_PROGRAM, "expectations", KELVO_REGISTRY});
    ASSERT_EQ(tool.wait(), 0) << tool.errors();
    writeFileForTest(home() + "/expectations", tool.output());
    Program put = run({"/usr/bin/curl", "-sfT", home() + "/expectations", service.baseURL() + "/debug/expectations"});
    ASSERT_EQ(put.wait(), 0) << put.errors();
  }

  /// Returns the list `name` of an answer of the service.
  Array listOf(const std::string& path, const char* name) {
    Program get = run({"/usr/bin/curl", "-sf", service.baseURL() + path});
    EXPECT_EQ(get.wait(), 0) << path;
    return at(parseJSON(get.output()).value_or(Value()), {name}).asArray().value_or(Array());
  }

  /// Returns the messages of all problems that concern the expectations.
  Texts breaches() {
    Texts all;
    for (const Value& problem : listOf("/debug/problems?kind=not-as-expected", "problems")) {
      all.push_back(description(at(problem, {"message"})));
    }
    std::sort(all.begin(), all.end());
    return all;
  }
};

TEST_F(RegistryRoad, AHostThatLogsThroughItsRegistryIsAsExpected) {
  expectTheRegistry();
  Program host = run({KELVO_REGISTRY_HOST});
  ASSERT_EQ(host.wait(), 0) << host.errors();
  EXPECT_EQ(host.output(), "");
  EXPECT_EQ(breaches(), Texts{});
  EXPECT_EQ(listOf("/debug/good", "events").size(), 3u);
  const Array purchases = listOf("/debug/good?name=Purchase", "events");
  ASSERT_EQ(purchases.size(), 1u);
  const Value attributes = at(purchases[0], {"attributes"});
  EXPECT_EQ(at(attributes, {"item"}), Value("e-reader"));
  EXPECT_EQ(at(attributes, {"price"}), Value(89.0));
  EXPECT_EQ(at(attributes, {"coupon"}), Value("SPRING"));
}

TEST_F(RegistryRoad, AnUnknownOrMistypedEventIsAProblemWheneverItArrives) {
  const std::string purchase = R"({"name": "Purchase", "info": {"item": "book", "price": 3, "amount": )";
  const std::string scroll = R"({"name": "Scroll", "isAggregate": true, "info": {"fast": true, "page": )";
  auto host = launch();
  host.untilReady().play(purchase + "1}}").play(purchase + "1.5}}").play(purchase + R"("1", "gift": 1}})");
  host.log("Purchas").play(scroll + R"("home"}})").play(scroll + R"("away"}})");
  ASSERT_EQ(host.quit(), 0) << host.errors();
  EXPECT_EQ(breaches(), Texts{});
  expectTheRegistry();  // judges what has arrived
  const Texts expected{"\"Purchas\": the event is not expected", "\"Purchase\": \"amount\" is 1.5, not a whole number",
                       "\"Purchase\": \"gift\" is not expected",
                       "\"Scroll\": \"page\" is \"away\", not one of [\"home\",\"basket\"]"};
  EXPECT_EQ(breaches(), expected);
  EXPECT_EQ(listOf("/debug/bad?name=Purchase", "events").size(), 2u);
  EXPECT_EQ(listOf("/debug/good", "events").size(), 1u) << "the library's own events are neither";

  auto next = launch();
  next.untilReady().log("Scroll").log("Other");
  next.play(R"({"name": "Visit", "isAggregate": true})");
  ASSERT_EQ(next.quit(), 0) << next.errors();
  Texts all = expected;
  all.insert(all.end(), {"\"Other\": the event is not expected", "\"Scroll\": \"fast\" is missing",
                         "\"Scroll\": the event is not an aggregate", "\"Visit\": the event is an aggregate"});
  std::sort(all.begin(), all.end());
  EXPECT_EQ(breaches(), all);
}

}  // namespace
}  // namespace kelvo::test
