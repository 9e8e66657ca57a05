#include "kelvo-log/Listening.h"

#include <cstdio>
#include <future>
#include <memory>

#include "kelvo-log/Waiting.h"
#include "kelvo/Plugin.h"
#include "platform/JSON.h"
#include "records/KLVEventType.h"

namespace kelvo::log {
namespace {

void printAsLine(const Dictionary& object) {
  std::printf("%s\n", describingJSONText(object).c_str());
  std::fflush(stdout);
}

class Printer final : public EventListener {
 public:
  void onEvent(const Event& event) override {
    printAsLine({{"name", event.name},
                 {"type", stringFromType(event.type)},
                 {"time", event.time},
                 {"attributes", event.attributes}});
  }
};

/// Returns the one listener. The bus delivers an event to each listener once, so no event is printed twice.
const std::shared_ptr<EventListener>& printer() {
  static const std::shared_ptr<EventListener> instance = std::make_shared<Printer>();
  return instance;
}

}  // namespace

bool listenForType(const std::string& type) {
  const KLVEventType known = typeFromString(type);
  if (known == KLVEventType::unknown) return false;
  PluginServices::registerForEventWithType(known, printer());
  return true;
}

void listenForIdentifier(const std::string& key) {
  PluginServices::registerIdentifer(key, printer());
}

void sync(const std::string& type, const std::string& version, std::chrono::duration<double> limit) {
  const Deadline deadline = deadlineIn(limit);
  const auto called = std::make_shared<std::promise<void>>();
  PluginServices::getSyncDataForActionType(type, version, [called] { called->set_value(); });
  const bool came = called->get_future().wait_until(deadline) == std::future_status::ready;
  printAsLine({{"sync", type}, {"came", came}});
}

}  // namespace kelvo::log
