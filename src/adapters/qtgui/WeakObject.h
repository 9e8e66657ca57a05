#pragma once

#include <QPointer>
#include <thread>

namespace kelvo::qt {

/// A weak reference to a Qt object (a widget, an item). The object that holds it may be released on any thread.
///
/// Only the thread that made the reference gets the object; other threads get nullptr. When the application object is
/// destroyed, the library's main queue moves to another thread, while objects may still be deleted on this one.
template <class Object>
class WeakObject {
 public:
  explicit WeakObject(Object* object) : object_(object) {}

  [[nodiscard]] Object* get() const { return std::this_thread::get_id() == thread_ ? object_.data() : nullptr; }
  explicit operator bool() const { return get() != nullptr; }
  Object* operator->() const { return get(); }
  Object& operator*() const { return *get(); }

 private:
  QPointer<Object> object_;
  std::thread::id thread_ = std::this_thread::get_id();
};

}  // namespace kelvo::qt
