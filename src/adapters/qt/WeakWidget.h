#pragma once

#include <QPointer>
#include <thread>

namespace kelvo::qt {

/// A widget, held weakly by an object that may be let go on any thread. It is there for the thread that made this
/// only: when the application object dies, the library's main queue goes over to another thread while widgets die.
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
