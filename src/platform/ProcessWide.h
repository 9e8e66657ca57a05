#pragma once

#ifdef KELVO_TESTING
#include <atomic>
#include <mutex>

#include "platform/Context.h"
#else
#include "platform/Immortal.h"
#endif

namespace kelvo {

#ifndef KELVO_TESTING

/// Whether this is the build for tests, in which a recorder owns the library.
inline constexpr bool kIsTestBuild = false;

/// The process's one object of the type `T`, as a function-local static. It is never destroyed (see Immortal.h). In the
/// build for tests, it ends with the context, and the next use makes it anew (see Context.h).
template <class T>
using ProcessWide = Immortal<T>;

/// Names what the end of a context sets back: variables that are no `ProcessWide`. No code in the product.
struct ResetAtEnd {
  template <class Reset>
  constexpr explicit ResetAtEnd(Reset) noexcept {}
};

// --- Counts of the work under way, for the build for tests.
inline void workBegins() noexcept {}
inline void workEnds() noexcept {}

#else

inline constexpr bool kIsTestBuild = true;

using context::workBegins;
using context::workEnds;

template <class T>
class ProcessWide final : public context::Object {
 public:
  ProcessWide() = default;

  T& operator*() {
    if (T* const object = object_.load(std::memory_order_acquire)) return *object;
    const std::lock_guard lock(making_);
    if (object_.load() == nullptr) {
      object_.store(new T, std::memory_order_release);
      context::add(*this);
    }
    return *object_.load();
  }
  T* operator->() { return &**this; }

 private:
  void destroy() noexcept override { delete object_.exchange(nullptr); }

  std::atomic<T*> object_{nullptr};
  std::mutex making_;
};

class ResetAtEnd {
 public:
  explicit ResetAtEnd(void (*reset)()) { context::atEnd(reset); }
};

#endif

}  // namespace kelvo
