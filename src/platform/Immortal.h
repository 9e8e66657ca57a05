#pragma once

#include <new>
#include <utility>

namespace kelvo {

/// Holds an object that is never destroyed. Use it as a function-local static for a constant of the process: no
/// destructor runs at exit, so threads may use the object until the process ends. For an object with state, use
/// `ProcessWide`.
template <class T>
class Immortal {
 public:
  template <class... Args>
  explicit Immortal(Args&&... args) {
    ::new (static_cast<void*>(storage_)) T(std::forward<Args>(args)...);
  }
  Immortal(const Immortal&) = delete;
  Immortal& operator=(const Immortal&) = delete;

  T& operator*() noexcept { return *std::launder(reinterpret_cast<T*>(storage_)); }
  T* operator->() noexcept { return &**this; }

 private:
  alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace kelvo
