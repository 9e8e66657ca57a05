#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kelvo-collector/Service.h"

namespace kelvo::collector {

class Bell;
class Connection;

/// Server-sent events about what arrives, as long as the client stays and the server runs. `write` sends a text and
/// says whether it could. `lastEventId` is what the client has seen before, if it has; a client that is far behind is
/// sent a reset, upon which it should read everything anew.
void streamEvents(const Store& store, Bell& bell, Connection& connection, const std::string& lastEventId,
                  const std::function<bool(const std::string&)>& write);

/// Answers when as many events as the question says have come, or its time is over; nullopt when the client has gone.
[[nodiscard]] std::optional<Reply> waitForEvents(const Question& question, const Store& store, Bell& bell,
                                                 Connection& connection);

}  // namespace kelvo::collector
