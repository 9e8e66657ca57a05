#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "kelvo-collector/store/Store.h"
#include "kelvo-service/Service.h"

// The answers that take time: the event stream of an open page, and the wait for events of a test. Both sleep until the
// bell rings, then look at the store.

namespace kelvo::collector {

class Bell;
class Connection;
using service::Reply;
using service::Request;

/// Streams server-sent events to one page: new chunks, changed sessions, changes of the service,
/// erasures, resets.
/// Thread: used on one thread at a time.
class EventStream {
 public:
  /// Resumes after the message `lastEventId`, or begins with the next chunk if it is empty. A client that has missed
  /// too much, or has an unknown id, first gets a "reset" message: it must load everything again.
  EventStream(const Store& store, Bell& bell, const std::string& lastEventId);

  /// Blocks until the client closes or the server stops. `write` sends a text and returns false if that fails.
  void serve(Connection& connection, const std::function<bool(const std::string&)>& write);

 private:
  const Store& store_;
  Bell& bell_;
  std::uint64_t serviceChanges_;  // as of the last message
  std::uint64_t erasures_;
  std::uint64_t resets_;
  std::int64_t sequence_ = 0;  // of the last chunk sent
  bool mustReload_ = false;
};

/// Blocks until the store has as many matching events as the query asks for, or its timeout has passed. Returns the
/// answer, nullopt if the client closes or the server stops.
[[nodiscard]] std::optional<Reply> waitForEvents(const Request& request, const Store& store, Bell& bell,
                                                 Connection& connection);

}  // namespace kelvo::collector
