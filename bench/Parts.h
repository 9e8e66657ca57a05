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

/// Returns the id of a new session. The first call sets `KELVO_HOME` to a temporary directory, which is removed at
/// exit, and limits the log to errors.
inline std::string freshSession() {
  struct Home {
    std::string path = (std::filesystem::temp_directory_path() / "kelvo-bench-XXXXXX").string();
    int sessions = 0;

    Home() {
      if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no temporary directory");
      setenv("KELVO_HOME", path.c_str(), 1);
      KLVLogger::setLogLevel(KLVLogger::Level::error);
    }
    ~Home() {
      std::error_code inUse;
      std::filesystem::remove_all(path, inUse);
    }
  };
  static Home home;
  return "S" + std::to_string(++home.sessions);
}

/// Returns a fixed lifetime count, so that making an event does not read the database.
struct FixedCounts final : KLVLifetimeCounts {
  std::int64_t getLifetimeCountForEventWithName(const std::string&) override { return 41; }
};

/// Returns an application event with `attributes(number)`.
inline std::shared_ptr<KLVEvent> event(std::size_t number) {
  FixedCounts counts;
  return std::make_shared<KLVAppEvent>(KLVEventType::app, name(number), attributes(number), counts);
}

}  // namespace kelvo::bench
