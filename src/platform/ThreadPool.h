#pragma once

#include <functional>

namespace boost::asio {
class thread_pool;
}

namespace kelvo {

/// Returns the pool that all queues and timers share. Its two threads start at the first use.
boost::asio::thread_pool& threadPool();

/// Runs `task` on a pool thread. `task` must not throw. Must not be called in a forked child.
void postToPool(std::function<void()> task);

}  // namespace kelvo
