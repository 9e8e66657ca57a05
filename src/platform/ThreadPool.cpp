#include "platform/ThreadPool.h"

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include "platform/Immortal.h"
#include "platform/Thread.h"

namespace kelvo {
namespace {

/// Attaches two threads of the library to a pool without threads, because names and signal masks must be the library's.
struct Pool {
  boost::asio::thread_pool pool{0};

  Pool() {
    startThread("kelvo.pool.1", [this] { pool.attach(); });
    startThread("kelvo.pool.2", [this] { pool.attach(); });
  }
};

}  // namespace

boost::asio::thread_pool& threadPool() {
  static Immortal<Pool> instance;
  return instance->pool;
}

void postToPool(std::function<void()> task) {
  boost::asio::post(threadPool(), std::move(task));
}

}  // namespace kelvo
