#pragma once

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "kelvo-collector/service/Script.h"
#include "kelvo-service/Service.h"
#include "kelvo-service/ServiceState.h"
#include "kelvo/Value.h"
#include "network/KLVHTTPSession.h"
#include "platform/ThreadSafety.h"

namespace kelvo::testing {

/// The service of a recorder: it answers as a real one does, but without a network. Thread-safe.
class InProcessService {
 public:
  /// An answer, and the time that passes before the client has it.
  struct Answer {
    HTTPOutcome outcome;
    std::chrono::nanoseconds after{0};
  };

  /// Processes the request. An answer that takes longer than the client's 30 seconds is a time-out.
  [[nodiscard]] Answer answer(const HTTPRequest& request) EXCLUDES(mutex_);

  /// Replaces the script of the requests that contain `part`.
  void follow(const std::string& part, const collector::Script& script) { scripts_.set(part, {script}); }
  void recover() { scripts_.clear(); }

  [[nodiscard]] std::vector<std::string> requests() const EXCLUDES(mutex_);
  [[nodiscard]] std::vector<Dictionary> chunks() const EXCLUDES(mutex_);

  /// From now on, also appends each accepted chunk to the file at `path`, one line each: for a process that is killed.
  void copyTo(const std::string& path) EXCLUDES(mutex_);
  /// Accepts the chunks of such a file.
  void takeCopies(const std::string& path) EXCLUDES(mutex_);

  service::ServiceState state;

 private:
  [[nodiscard]] service::Reply process(const service::Request& request) EXCLUDES(mutex_);
  void accept(const std::string& body) REQUIRES(mutex_);
  [[nodiscard]] service::Reply erase(const service::Device& device, const std::string& secret) REQUIRES(mutex_);

  collector::ScriptBook scripts_;
  mutable Mutex mutex_;
  std::vector<std::string> requests_ GUARDED_BY(mutex_);
  std::vector<Dictionary> chunks_ GUARDED_BY(mutex_);
  std::set<std::string> ids_ GUARDED_BY(mutex_);                   ///< of the chunks
  std::map<std::string, std::string> secrets_ GUARDED_BY(mutex_);  ///< the first one of each device
  std::set<std::string> erased_ GUARDED_BY(mutex_);                ///< devices
  std::string copy_ GUARDED_BY(mutex_);                            ///< path; empty: none
};

}  // namespace kelvo::testing
