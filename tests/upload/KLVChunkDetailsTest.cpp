#include "upload/KLVChunkDetails.h"

#include <gtest/gtest.h>

#include <bit>
#include <iterator>
#include <map>
#include <random>
#include <string_view>

#include "platform/JSON.h"
#include "records/KLVEvent.h"
#include "support/LogCapture.h"

namespace kelvo::test {
namespace {

constexpr struct {
  std::string_view type;
  std::string_view group;  ///< empty if the kind is not sent
  std::string_view className;
  std::string_view name;  ///< of the event's id in the upload
} kKinds[] = {
    {"System", "system_events", "KLVSystemEvent", "name"},
    {"Navigation", "navigation_events", "KLVNavigationEvent", "navigation_id"},
    {"App", "app_events", "KLVAppEvent", "name"},
    {"UserInteraction", "user_events", "KLVUserEvent", "id"},
    {"KLVCustomError", "incidents", "KLVObservationEvent", "incident_id"},
    {"ApplicationCrash", "incidents", "KLVObservationEvent", "incident_id"},
    {"Client", "", "", ""},
};
constexpr std::string_view kGroups[] = {"system_events", "navigation_events", "app_events", "user_events", "incidents"};

/// Returns the body with the events of these storage forms.
std::string bodyWith(const std::vector<Dictionary>& rows) {
  KLVChunkDetails details;
  for (const Dictionary& row : rows) details.addEvent(KLVStoredEvent::of(row));
  const auto text = details.takeBody({{"sdk_info", Dictionary()}}, {.user = {{"plan", "gold"}}});
  return text.value().inOnePiece();
}

/// Returns the same, built from the events' records.
std::string bodyOfRecords(const std::vector<Dictionary>& rows) {
  std::map<std::string_view, Array> groups;
  for (const Dictionary& row : rows) {
    const auto record = objectFromJsonDict<KLVEvent>(row);
    for (const auto& kind : kKinds) {
      if (kind.type != stringFromType(record->eventType()) || kind.group.empty()) continue;
      groups[kind.group].append(record->jsonDictModifiedforInstanceWithName(kind.className));
    }
  }
  Dictionary details{{"user_attributes", Dictionary{{"plan", "gold"}}},
                     {"session_attributes", Dictionary()},
                     {"chunk_attributes", Dictionary()},
                     {"agg_events", Array()}};
  for (const auto& group : kGroups) {
    const bool always = group != "user_events" && group != "incidents";
    if (always || !groups[group].empty()) details.set(group, groups[group]);
  }
  return jsonText(Dictionary{{"sdk_info", Dictionary()}, {"chunk_details", details}}).value();
}

Dictionary row(std::string_view type, Value attributes, Value id = "e", Value time = 7) {
  return {
      {"id", std::move(id)}, {"type", type}, {"time", std::move(time)}, {"__additional_info__", std::move(attributes)}};
}

TEST(ChunkDetails, GroupEventsByKindAndLeaveOthersOut) {
  for (const auto& kind : kKinds) {
    const Value body = parseJSON(bodyWith({{{"id", "e"}, {"type", kind.type}}})).value();
    const Dictionary form = (*body.get<Dictionary>())["chunk_details"].asDictionary().value();
    for (const auto group : kGroups) {
      const auto events = form[group].asArray().value_or(Array());
      ASSERT_EQ(events.size(), kind.group == group ? 1u : 0u) << kind.type << " in " << group;
      for (const Value& event : events) EXPECT_EQ((*event.get<Dictionary>())[kind.name], Value("e")) << kind.type;
    }
    EXPECT_EQ(form.contains("app_events"), true);
    EXPECT_EQ(form.contains("user_events"), kind.group == "user_events") << "only if there are any";
  }
}

/// Makes attributes of events, most of them as the library stores them.
class Attributes {
 public:
  explicit Attributes(unsigned seed) : random_(seed) {}

  std::string next() {
    Dictionary attributes;
    for (auto left = below(4); left > 0; --left) attributes.set(key(), value(1));
    std::string text = jsonText(attributes).value();
    if (below(3) > 0) return text;
    for (auto edits = below(3); edits > 0; --edits) {
      static constexpr std::string_view kPieces[] = {" ",        ",",  "\"", "\\u0041", "\\/",  "1E5",
                                                     "0.10",     "-0", "}",  "\xC3",    "{",    "[",
                                                     "\"a\":1,", "00", "e",  ".",       "\x01", "\xED\xA0\x80"};
      const std::string_view piece = kPieces[below(std::size(kPieces))];
      text.replace(below(text.size()), below(3), piece);
    }
    return text;
  }
  std::size_t below(std::size_t end) { return random_() % end; }

 private:
  std::string key() {
    static constexpr std::string_view kKeys[] = {
        "__custom_info__", "category",        "name", "id",  "time", "type",
        "duration",        "additional_info", "a",    "b\n", "",     "\xC3\xA9"};
    return std::string(kKeys[below(std::size(kKeys))]);
  }
  Value value(int depth) {
    switch (below(depth > 4 ? 7 : 9)) {
      case 0: return nullptr;
      case 1: return below(2) == 0;
      case 2: return static_cast<std::int64_t>(random_()) >> below(64);
      case 3: return random_() >> below(64);
      case 4: return std::bit_cast<double>((random_() >> 12) | (std::uint64_t{below(2047)} << 52));
      case 5: return static_cast<double>(below(100000)) / 100;
      case 6: return std::string("text\t\"\\ \x01\x1F\x7F \xF0\x9F\x98\x80").substr(0, below(2) == 0 ? 17 : below(12));
      case 7: {
        Array array;
        for (auto left = below(3); left > 0; --left) array.append(value(depth + 1));
        return array;
      }
      default: {
        Dictionary dictionary;
        for (auto left = below(4); left > 0; --left) dictionary.set(key(), value(depth + 1));
        return dictionary;
      }
    }
  }

  std::mt19937_64 random_;
};

TEST(ChunkDetails, AnUploadFormIsTheOneOfTheRebuiltRecordByteForByte) {
  LogCapture log;
  Attributes attributes(1);
  for (int chunk = 0; chunk < 300; ++chunk) {
    std::vector<Dictionary> rows;
    for (std::size_t count = 0; count < 10; ++count) {
      const auto& kind = kKinds[attributes.below(std::size(kKinds))];
      rows.push_back(row(kind.type, attributes.next(), attributes.below(2) == 0 ? "n\"\n\xFF" : "", 12.7));
    }
    ASSERT_EQ(bodyWith(rows), bodyOfRecords(rows));
  }
  for (const Value& odd :
       {Value(), Value(""), Value("[1]"), Value("null"), Value(1), Value(Data{1}), Value("{} "),
        Value("{\"id\":1,\"id\":2}"), Value("{\"a\":18446744073709551616,\"b\":-9223372036854775809}"),
        Value("{\"a\":1e400}"), Value("{\"a\":123456789012345678901234567890}")}) {
    for (const auto& kind : kKinds) {
      EXPECT_EQ(bodyWith({row(kind.type, odd)}), bodyOfRecords({row(kind.type, odd)})) << description(odd);
    }
  }
  const std::vector<Dictionary> columns{row("App", "{}", 5, "12 s"), row("App", "{}", Data{1}, nullptr),
                                        row("x", "{}")};
  EXPECT_EQ(bodyWith(columns), bodyOfRecords(columns));
}

TEST(ChunkDetails, DamagedAttributesAreLeftOutWithALine) {
  LogCapture log;
  const std::string deep = "{\"category\":" + std::string(253, '[') + std::string(253, ']') + "}";
  const auto sent =
      bodyWith({row("App", "{\"category\":\"c\",\"a\":tru}"), row("App", deep), row("App", "{\"category\":2}")});
  EXPECT_NE(sent.find(R"([{"name":"e","time":7},{"name":"e","time":7},{"category":2,"name":"e","time":7}])"),
            std::string::npos)
      << sent;
  EXPECT_EQ(log.count("<KLV ERROR> JSON Error: "), 2U) << "one of them nests deeper than a body may";
}

}  // namespace
}  // namespace kelvo::test
