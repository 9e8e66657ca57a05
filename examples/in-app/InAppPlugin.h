#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kelvo/Plugin.h"

/// Shows a message when the user does what a rule of the service names. The service defines the rules as real-time
/// actions; they stay in step with it, and with what it withdraws:
///
///     {"_id": "r1", "pid": "thanks", "event": "Purchase", "message": "Thank you!", "most": 2}
///
/// "most" is how often one user sees the message, over all launches; without it, there is no limit.
class InAppPlugin final : public kelvo::Plugin {
 public:
  using Show = void (*)(const std::string& message);

  /// The host's part: called with each message, on the library's event queue, so it must only pass it on. To be set
  /// before the host logs its first event.
  static void onMessage(Show show);

  void initialize(const kelvo::Dictionary& configuration) override;
  void onEvent(const kelvo::Event& event) override;

 private:
  struct Rule {
    std::string id, event, message;
    std::int64_t most;
  };

  void boot();
  static bool mayShow(const Rule& rule);

  std::vector<Rule> rules_;  // complete before the first event comes
};
