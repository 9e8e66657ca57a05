#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "Attributes.h"
#include "records/KLVEvents.h"
#include "util/KLVLogger.h"

namespace kelvo::bench {

/// Prepares the process: a `KELVO_HOME` of its own, removed at the end, and no log lines but errors. Returns the id of
/// a session that no one has used before.
inline std::string freshSession() {
  struct Home {
    std::string path = (std::filesystem::temp_directory_path() / "kelvo-bench-XXXXXX").string();
    int sessions = 0;

    Home() {
      if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no temporary directory");
      setenv("KELVO_HOME", path.c_str(), 1);
      KLVLogger::setLogLevel(3);
    }
    ~Home() {
      std::error_code inUse;
      std::filesystem::remove_all(path, inUse);
    }
  };
  static Home home;
  return "S" + std::to_string(++home.sessions);
}

/// A stand-in for the counts that the database keeps.
struct NoCounts final : KLVLifetimeCounts {
  std::int64_t getLifetimeCountForEventWithName(const std::string&) override { return 41; }
};

inline std::shared_ptr<KLVEvent> event(std::size_t number) {
  NoCounts counts;
  return std::make_shared<KLVAppEvent>(KLVEventType::app, name(number), attributes(number), counts);
}

}  // namespace kelvo::bench
