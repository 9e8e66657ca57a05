#pragma once

#include <new>
#include <utility>

namespace kelvo {

/// Storage of a process-wide object that is made on first use and never destroyed, so that no order of
/// destruction at exit can be wrong. Use as a function-local static.
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
