#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kelvo-collector/service/Service.h"

namespace kelvo::collector {

class Bell;
class Connection;

/// Server-sent events about what arrives.
class EventStream {
 public:
  /// Begins with what comes from now on, or after what the client has seen: `lastEventId`, empty when it has seen
  /// nothing. A client that is far behind is sent a reset, upon which it should read everything anew.
  EventStream(const Store& store, Bell& bell, const std::string& lastEventId);

  /// Goes on as long as the client stays and the server runs. `write` sends a text and says whether it could.
  void serve(Connection& connection, const std::function<bool(const std::string&)>& write);

 private:
  const Store& store_;
  Bell& bell_;
  std::uint64_t serviceChanges_;
  std::uint64_t resets_;
  std::int64_t sequence_ = 0;
  bool anew_ = false;
};

/// Answers when as many events as the question says have come, or its time is over; nullopt when the client has gone.
[[nodiscard]] std::optional<Reply> waitForEvents(const Question& question, const Store& store, Bell& bell,
                                                 Connection& connection);

}  // namespace kelvo::collector
