#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kelvo/Plugin.h"

/// Shows a message when the user triggers an event that a rule names. The rules are real-time actions of the service,
/// such as this one:
///
///     {"_id": "r1", "pid": "thanks", "event": "Purchase", "message": "Thank you!", "most": 2}
///
/// "most" limits how often the message is shown, over all launches; without it, there is no limit. The library updates
/// the rules at each launch, and drops the rules that the service has withdrawn.
class InAppPlugin final : public kelvo::Plugin {
 public:
  using Show = void (*)(const std::string& message);

  /// Sets the host's function that shows a message. The host must call this before it logs its first event. The library
  /// calls `show` on its event queue, where it must not block: it should pass the message on to the main loop.
  static void onMessage(Show show);

  /// The library calls this once, at the end of its start-up.
  void initialize(const kelvo::Dictionary& configuration) override;
  /// The library calls this for each event under a key that `boot` has registered.
  void onEvent(const kelvo::Event& event) override;

 private:
  struct Rule {
    std::string id, event, message;
    std::int64_t most;
  };

  /// Reads the rules, and registers for their events.
  void boot();
  /// Returns true if the rule's limit is not reached yet, and counts the message.
  static bool mayShow(const Rule& rule);

  std::vector<Rule> rules_;  // complete before the first event is delivered
};
