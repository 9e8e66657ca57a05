#include <gtest/gtest.h>

#include <algorithm>

#include "support/Program.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

/// Runs kelvo-events and returns what it has printed, errors first. Sets `status` to its exit status.
std::string runTool(std::vector<std::string> arguments, int& status) {
  arguments.insert(arguments.begin(), KELVO_EVENTS_PROGRAM);
  Program program(arguments, {});
  status = program.wait();
  return program.errors() + program.output();
}

/// Returns a registry with the event "A", which has `members`, and an event with `others`.
std::string registryOf(const std::string& members, const std::string& others = {}) {
  const std::string event = R"({"name": "A", "meaning": "m", "owner": "o")";
  const std::string other = R"({"meaning": "m", "owner": "o", )";
  return "{\"events\": [\n" + event + members + "}" + (others.empty() ? "" : ",\n" + other + others + "}") + "]}";
}

/// Returns the members of an event with one attribute, "x".
std::string attribute(const std::string& members) {
  return R"(, "attributes": [{"name": "x", "meaning": "m", )" + members + "}]";
}

/// Returns the members of an event with the attributes `first` and `second`.
std::string attributes(const std::string& first, const std::string& second) {
  const std::string begin = R"({"meaning": "m", "type": "text", )";
  return R"(, "attributes": [)" + begin + first + "}, " + begin + second + "}]";
}

TEST(Registry, EachFaultIsReportedWithItsPlace) {
  const std::string file = home() + "/kelvo-events.json";
  const std::pair<std::string, const char*> cases[] = {
      {"{\"events\": [\n  {\"name\": }]}", ":2:12: error: this is not JSON: "},
      {"[]", ":1:1: error: the file is not an object with the list \"events\""},
      {R"({"events": {}})", ":1:2: error: events: events is not a list"},
      {R"({"events": [], "event": 1})", R"(:1:16: error: event: there is no member "event"; the members are: events)"},
      {R"({"events": [3]})", ":1:13: error: events[0]: the event is not an object"},
      {R"({"events": [{"name": "A"}]})", ":1:13: error: events[0]: meaning is missing"},
      {registryOf(R"(, "owner": "p")"), "events[0].owner: an earlier member of this object has the same name"},
      {registryOf(R"(, "Owner": "p")"), R"(events[0].Owner: there is no member "Owner"; the members are: name, )"},
      {registryOf(R"(, "aggregate": "yes")"), "events[0].aggregate: aggregate is neither true nor false"},
      {registryOf("", R"("name": "a")"),
       R"(events[1].name: "a" is the name of events[0], too, or differs from it only)"},
      {registryOf("", R"("name": "a!")"), R"("a!" and events[0] give the same function a; add a "code")"},
      {registryOf("", R"("name": "日本")"), R"(has no ASCII letter or digit to make a name in code of; add a "code")"},
      {registryOf("", R"("name": "klv_mine")"), R"("klv_mine" is a name of the library's own events)"},
      {registryOf("", R"("name": "FOREGROUND")"), R"("FOREGROUND" is a name of the library's own events)"},
      {registryOf("", R"("name": "*")"), "\"*\" is the collector's name for all other events"},
      {registryOf("", R"("name": "B\n")"), "events[1].name: name has a control character"},
      {registryOf("", R"("name": "B ")"), "events[1].name: name begins or ends with a blank"},
      {registryOf("", R"("name": "")"), "events[1].name: name is not a text with at least one character"},
      {registryOf(R"(, "kept_until": "2027-02-29")"), R"("2027-02-29" is not a date such as)"},
      {registryOf(R"(, "kept_until": "2027-06-14")"), R"("A" was to be kept until 2027-06-14: remove it, or extend)"},
      {registryOf(attribute(R"("type": "float")")), R"(.type: "float" is none of text, integer, number, boolean)"},
      {registryOf(attribute(R"("type": "number", "min": 3, "max": 2)")), "attributes[0].min: min is above max"},
      {registryOf(attribute(R"("type": "number", "min": true)")), ".min: min is not a number"},
      {registryOf(attribute(R"("type": "integer", "max": 2.5)")), ".max: max of an integer is not a whole number"},
      {registryOf(attribute(R"("type": "integer", "max": 1e16)")), ".max: max is beyond 9007199254740992"},
      {registryOf(attribute(R"("type": "text", "min": 1)")), ".min: only an integer or a number has min"},
      {registryOf(attribute(R"("type": "boolean", "unit": "s")")), ".unit: only an integer or a number has a unit"},
      {registryOf(attribute(R"("type": "number", "values": ["a"])")), ".values: only a text has values"},
      {registryOf(attribute(R"("type": "text", "values": [])")), ".values: values is not a list with a value"},
      {registryOf(attribute(R"("type": "text", "values": ["a", 1])")), ".values[1]: the value is neither a text nor"},
      {registryOf(attribute(R"("type": "text", "values": ["+1", "1"])")), R"("1" and "+1" are both n1 in code)"},
      {registryOf(attributes(R"("name": "x")", R"("name": "x")")),
       R"("x" is the name of events[0].attributes[0], too)"},
      {registryOf(attributes(R"("name": "x y")", R"("name": "x-y")")), "are both XY in code"},
      {registryOf(attributes(R"("name": "x")", R"("name": "klv_x")")),
       R"("klv_x" is a name of the library's own attr)"},
      {registryOf(attribute(R"("type": "text")"), R"("name": "B")" + attribute(R"("type": "number")")),
       "events[1].attributes[0]: the type X differs from that of events[0].attributes[0]"},
      {registryOf(R"(, "aggregate": true)" + attribute(R"("type": "text")")),
       "warning: events[0].attributes[0]: an aggregate counts each value of \"x\""},
      {registryOf(R"(, "kept_until": "2027-06-20")"), "warning: events[0].kept_until: \"A\" is kept until 2027-06-20"},
  };
  for (const auto& [text, message] : cases) {
    writeFileForTest(file, text);
    int status = -1;
    const std::string found = runTool({"check", file, "--today", "2027-06-15"}, status);
    const bool isWarning = std::string(message).find("warning: ") == 0;
    EXPECT_EQ(status, isWarning ? 0 : 1) << text << found;
    EXPECT_NE(found.find(message), std::string::npos) << text << "\n" << found;
  }
}

TEST(Registry, AllFaultsAreReportedAtOnceAndNothingIsWritten) {
  const std::string file = home() + "/kelvo-events.json", output = home() + "/out.h";
  writeFileForTest(file,
                   registryOf(R"(, "kept_until": "soon")", R"("name": "FOREGROUND")" + attribute(R"("type": "int")")));
  writeFileForTest(output, "before");
  int status = -1;
  const std::string found = runTool({"cpp", file, "--output", output}, status);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(std::count(found.begin(), found.end(), '\n'), 3) << found;
  EXPECT_EQ(contentOf(output), "before");
  // A date never breaks a build; only a check looks at it.
  writeFileForTest(file, registryOf(R"(, "kept_until": "2001-01-01")"));
  EXPECT_EQ(runTool({"cpp", file, "--output", output}, status), "");
  EXPECT_EQ(status, 0);
  EXPECT_NE(contentOf(output).find("inline void a() {"), std::string::npos);
  runTool({"check", file}, status);
  EXPECT_EQ(status, 1);
  const std::vector<std::string> wrong[] = {{}, {"check"}, {"paint", file}, {"cpp", file, "--namespace", "a::int"}};
  for (const auto& arguments : wrong) {
    runTool(arguments, status);
    EXPECT_EQ(status, 2);
  }
}

}  // namespace
}  // namespace kelvo::test
