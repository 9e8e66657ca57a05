#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kelvo/Options.h"
#include "kelvo/Testing.h"
#include "platform/ThreadSafety.h"
#include "testing/InProcessService.h"
#include "util/KLVCallJournal.h"

namespace kelvo {
class KLVInfo;

namespace testing {

/// The recorder that lives: its home, its service, and what it has seen of the host's calls. It survives the contexts
/// of its launches. Thread-safe, except where a function says otherwise.
class Recording {
 public:
  Recording();
  Recording(const Recording&) = delete;
  Recording& operator=(const Recording&) = delete;
  ~Recording();

  /// Returns the present one, nullptr if none lives.
  [[nodiscard]] static Recording* present() noexcept;

  // --- Launches. Thread: the recorder's.
  /// Begins each launch with `options`; without a call, the code under test starts the library.
  void startWith(Options options);
  void beginLaunch();
  /// Does the work of an exit, and ends the context.
  void endLaunch();
  /// Runs `code` in a launch of a child process, which is then killed. Returns false if it ended in another way.
  [[nodiscard]] bool runKilled(const std::function<void()>& code);

  // --- What the host has done.
  void called(const KLVCallRecord& record) EXCLUDES(mutex_);
  void entered(const KLVInfo& screen) EXCLUDES(mutex_);
  [[nodiscard]] std::vector<Call> calls() const EXCLUDES(mutex_);
  [[nodiscard]] std::vector<std::string> screens() const EXCLUDES(mutex_);

  [[nodiscard]] const std::string& home() const noexcept { return home_; }
  InProcessService service;

 private:
  std::string home_;
  std::optional<Options> options_;  ///< of each start

  mutable Mutex mutex_;
  std::vector<Call> calls_ GUARDED_BY(mutex_);
  std::vector<std::string> screens_ GUARDED_BY(mutex_);
};

/// Waits until the library has no work under way. Throws as `Recorder` says.
void waitForWork();

}  // namespace testing
}  // namespace kelvo
