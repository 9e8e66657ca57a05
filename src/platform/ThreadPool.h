#pragma once

#include <functional>

namespace boost::asio {
class thread_pool;
}

namespace kelvo {

/// The one pool of two threads that all queues and timers share; its threads start at the first use.
boost::asio::thread_pool& threadPool();

/// Runs `task`, which must not throw, on a pool thread. Not to be called in a forked child.
void postToPool(std::function<void()> task);

}  // namespace kelvo
