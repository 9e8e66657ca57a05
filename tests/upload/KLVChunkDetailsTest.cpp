#include "upload/KLVChunkDetails.h"

#include <gtest/gtest.h>

#include <string_view>

namespace kelvo::test {
namespace {

TEST(ChunkDetails, GroupEventsByKindAndLeaveOthersOut) {
  const struct {
    const char* type;
    std::string_view group;  ///< empty if the kind is not sent
    const char* name;        ///< of the event's id in the upload
  } cases[] = {
      {"System", "system_events", "name"},
      {"Navigation", "navigation_events", "navigation_id"},
      {"App", "app_events", "name"},
      {"UserInteraction", "user_events", "id"},
      {"KLVCustomError", "incidents", "incident_id"},
      {"ApplicationCrash", "incidents", "incident_id"},
      {"Client", "", ""},
  };
  for (const auto& each : cases) {
    KLVChunkDetails details;
    details.addEvents({{{"id", "e"}, {"type", each.type}}});
    const Dictionary form = details.constructChunkDetails({}, {}, {}, {});
    for (const char* group : {"system_events", "navigation_events", "app_events", "user_events", "incidents"}) {
      const auto events = form[group].asArray().value_or(Array());
      ASSERT_EQ(events.size(), each.group == group ? 1u : 0u) << each.type << " in " << group;
      for (const Value& event : events) EXPECT_EQ((*event.get<Dictionary>())[each.name], Value("e")) << each.type;
    }
    EXPECT_EQ(form.contains("app_events"), true);
    EXPECT_EQ(form.contains("user_events"), each.group == "user_events") << "only if there are any";
  }
}

}  // namespace
}  // namespace kelvo::test
