#include "kelvo-server/loop/Loop.h"

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <thread>
#include <utility>

namespace kelvo::server {

namespace asio = boost::asio;

struct Loop::Impl {
  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> guard = asio::make_work_guard(context);
  std::thread thread;
};

Loop::Loop() : impl_(std::make_unique<Impl>()) {}

Loop::~Loop() {
  stop();
}

void Loop::start() {
  impl_->thread = std::thread([this] { impl_->context.run(); });
}

void Loop::stop() {
  impl_->context.stop();
  if (impl_->thread.joinable()) impl_->thread.join();
}

void Loop::post(std::function<void()> work) {
  asio::post(impl_->context, std::move(work));
}

void Loop::after(std::chrono::milliseconds delay, std::function<void()> work) {
  auto timer = std::make_unique<asio::steady_timer>(impl_->context, delay);
  auto& waiting = *timer;
  waiting.async_wait([timer = std::move(timer), work = std::move(work)](const boost::system::error_code& error) {
    if (!error) work();
  });
}

asio::io_context& Loop::context() noexcept {
  return impl_->context;
}

std::vector<std::unique_ptr<Loop>> makeLoops() {
  std::vector<std::unique_ptr<Loop>> loops(std::max(1U, std::thread::hardware_concurrency()));
  for (auto& loop : loops) loop = std::make_unique<Loop>();
  return loops;
}

struct Workers::Impl {
  explicit Impl(unsigned threads) : pool(threads) {}
  asio::thread_pool pool;
};

Workers::Workers(unsigned threads) : impl_(std::make_unique<Impl>(threads)) {}

Workers::~Workers() {
  impl_->pool.stop();
  impl_->pool.join();
}

void Workers::post(std::function<void()> work) {
  asio::post(impl_->pool, std::move(work));
}

}  // namespace kelvo::server
