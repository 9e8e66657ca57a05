#pragma once

#include <set>
#include <string>
#include <vector>

#include "manners/Manners.h"

namespace kelvo::test {

/// Tests that launch a host under faulty conditions, and then under normal ones.
class Faults : public Hosts {
 protected:
  Launch launch(const Machine& machine = {}, const std::string& waitSeconds = "5") {
    return Road::launch({"--app-id", "shop", "--wait", waitSeconds}, machine.environment, machine.wrapper);
  }

  /// Launches under normal conditions, and expects that the launch delivers its event and the database is intact.
  void expectTheNextLaunchGoesOn() {
    const auto earlier = arrived("After");
    auto next = launch();
    next.untilReady().log("After");
    EXPECT_EQ(next.quit(), 0) << next.errors();
    EXPECT_EQ(arrived("After"), earlier + 1) << next.errors();
    EXPECT_EQ(stored("pragma integrity_check"), Texts{"ok"});
  }

  /// Returns the events called `name` that arrived. Skips repetitions of a chunk.
  [[nodiscard]] std::vector<Value> arrivedEvents(const std::string& name) const {
    std::vector<Value> found;
    std::set<std::string> chunks;
    for (const Value& chunk : service.chunks()) {
      if (!chunks.insert(description(at(chunk, {"chunk_meta", "id"}))).second) continue;
      const Value events = at(chunk, {"chunk_details", "app_events"});
      for (const Value& event : *events.get<Array>()) {
        if (at(event, {"name"}) == Value(name)) found.push_back(event);
      }
    }
    return found;
  }
  [[nodiscard]] long arrived(const std::string& name) const { return static_cast<long>(arrivedEvents(name).size()); }
};

}  // namespace kelvo::test
