#pragma once

#include <functional>
#include <memory>

#include "platform/ThreadSafety.h"
#include "util/KLVHTTPTypes.h"

namespace kelvo {

/// Requests that end together: those of one generation of the library's data. Thread-safe.
///
/// A closed group never opens again. It sends nothing more, and none of its completions runs. Of its requests under
/// way, the session ends those that are not sent completely. The others go on to their answer, so that nothing follows
/// them out of order.
class HTTPGroup : public std::enable_shared_from_this<HTTPGroup> {
 public:
  HTTPGroup() = default;
  HTTPGroup(const HTTPGroup&) = delete;
  HTTPGroup& operator=(const HTTPGroup&) = delete;
  ~HTTPGroup();

  /// Returns a completion that does nothing once the group is closed, and calls `completion` before.
  [[nodiscard]] HTTPCompletion guard(HTTPCompletion completion);
  [[nodiscard]] bool isClosed() const EXCLUDES(mutex_);
  /// Closes the group. Calls `idle` once no completion runs: at once, or on the thread of the last one. Calls `ended`
  /// when the last request has ended and nobody uses the group any more, on any thread; not in a process that exits
  /// first. Only the first call has an effect.
  void close(std::function<void()> idle, std::function<void()> ended) EXCLUDES(mutex_);

 private:
  [[nodiscard]] bool enter() EXCLUDES(mutex_);
  void leave() EXCLUDES(mutex_);

  mutable Mutex mutex_;
  bool isClosed_ GUARDED_BY(mutex_) = false;
  int running_ GUARDED_BY(mutex_) = 0;  // completions
  std::function<void()> idle_ GUARDED_BY(mutex_);
  std::function<void()> ended_ GUARDED_BY(mutex_);
};

}  // namespace kelvo
