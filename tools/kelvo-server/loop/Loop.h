#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

namespace boost::asio {
class io_context;
}

namespace kelvo::server {

/// An event loop with a thread of its own. Its objects share nothing with those of other loops, so they need no lock.
class Loop {
 public:
  Loop();
  /// Stops.
  ~Loop();
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  void start();
  /// Ends the thread. What is posted or waits is dropped.
  void stop();

  /// Runs `work` on the loop, soon. Thread: any.
  void post(std::function<void()> work);
  /// Runs `work` on the loop after `delay`. Thread: the loop's.
  void after(std::chrono::milliseconds delay, std::function<void()> work);
  [[nodiscard]] boost::asio::io_context& context() noexcept;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// Returns as many loops as the machine has cores.
[[nodiscard]] std::vector<std::unique_ptr<Loop>> makeLoops();

/// Threads for work that would hold up a loop for long. Work beyond the number of threads waits.
class Workers {
 public:
  explicit Workers(unsigned threads);
  /// Waits for the work that runs, and drops the rest.
  ~Workers();
  /// Thread: any.
  void post(std::function<void()> work);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kelvo::server
