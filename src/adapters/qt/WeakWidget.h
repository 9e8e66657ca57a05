#pragma once

#include <QPointer>
#include <thread>

namespace kelvo::qt {

/// A weak reference to a widget. The object that holds it may be released on any thread.
///
/// Only the thread that made the reference gets the widget; other threads get nullptr. When the application object is
/// destroyed, the library's main queue moves to another thread, while widgets may still be deleted on this one.
template <class Widget>
class WeakWidget {
 public:
  explicit WeakWidget(Widget* widget) : widget_(widget) {}

  [[nodiscard]] Widget* get() const { return std::this_thread::get_id() == thread_ ? widget_.data() : nullptr; }
  explicit operator bool() const { return get() != nullptr; }
  Widget* operator->() const { return get(); }
  Widget& operator*() const { return *get(); }

 private:
  QPointer<Widget> widget_;
  std::thread::id thread_ = std::this_thread::get_id();
};

}  // namespace kelvo::qt
