#pragma once

#include <coroutine>
#include <exception>
#include <functional>
#include <optional>
#include <utility>

namespace kelvo::server {

/// A coroutine that returns a `T`. It starts when it is awaited. Thread: all on one loop.
template <class T>
class [[nodiscard]] Task {
 public:
  struct promise_type {
    std::optional<T> value;
    std::coroutine_handle<> awaiting;

    Task get_return_object() { return Task(std::coroutine_handle<promise_type>::from_promise(*this)); }
    std::suspend_always initial_suspend() noexcept { return {}; }
    auto final_suspend() noexcept {
      struct Resume {
        bool await_ready() noexcept { return false; }
        std::coroutine_handle<> await_suspend(std::coroutine_handle<promise_type> ended) noexcept {
          return ended.promise().awaiting;
        }
        void await_resume() noexcept {}
      };
      return Resume{};
    }
    void return_value(T result) { value.emplace(std::move(result)); }
    void unhandled_exception() noexcept { std::terminate(); }
  };

  Task(Task&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Task& operator=(Task&&) = delete;
  ~Task() {
    if (handle_) handle_.destroy();
  }

  [[nodiscard]] bool await_ready() const noexcept { return false; }
  std::coroutine_handle<> await_suspend(std::coroutine_handle<> awaiting) noexcept {
    handle_.promise().awaiting = awaiting;
    return handle_;
  }
  T await_resume() { return std::move(*handle_.promise().value); }

 private:
  explicit Task(std::coroutine_handle<promise_type> handle) : handle_(handle) {}
  std::coroutine_handle<promise_type> handle_;
};

/// A coroutine that starts at once and that nobody awaits.
struct Detached {
  struct promise_type {
    Detached get_return_object() noexcept { return {}; }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() noexcept {}
    void unhandled_exception() noexcept { std::terminate(); }
  };
};

/// Awaits a function with a callback: `T result = co_await Callback<T>(start)`. `start` receives the function that it
/// must call once with the result, at once or later, on the same loop.
template <class T>
class Callback {
 public:
  using Done = std::function<void(T)>;
  explicit Callback(std::function<void(Done)> start) : start_(std::move(start)) {}

  [[nodiscard]] bool await_ready() const noexcept { return false; }
  bool await_suspend(std::coroutine_handle<> awaiting) {
    isStarting_ = true;
    start_([this, awaiting](T result) {
      result_.emplace(std::move(result));
      if (!isStarting_) awaiting.resume();
    });
    isStarting_ = false;
    return !result_.has_value();
  }
  T await_resume() { return std::move(*result_); }

 private:
  std::function<void(Done)> start_;
  std::optional<T> result_;
  bool isStarting_ = false;
};

}  // namespace kelvo::server
